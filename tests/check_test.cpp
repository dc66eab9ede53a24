// The check program: the finding for each mistake, and the announcement of a pass.
#include "check/check.h"
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

// What the check of a text prints, in which '@' is the storage; the disk stays as it is.
std::string check_text(const std::string &text, bool dry_run = false) {
    main_path = fs::current_path();
    make_tree(".", {{"f.toml", std::regex_replace(text, std::regex("@"), main_path)},
                    {"link", "-> /"},
                    {"in/n.mxf", "new"},
                    {"other/a.mxf", "1"},
                    {"out/t", "old"},
                    {"out/.t.metadir/metadata", "original filename=was.mxf\n"}});
    configuration.clear();
    const file_tree before = tree_of(".");
    bool good = false;
    const std::string output = output_of([&] { good = check({"", "f.toml", false, dry_run}); });
    EXPECT_EQ(tree_of("."), before);
    EXPECT_EQ(good, output.find("errors: 0") != std::string::npos) << output;
    return std::regex_replace(output, std::regex(main_path), "@");
}

std::string entry(const std::string &number, const std::string &watch, const std::string &pattern,
                  const std::string &target) {
    return "[event" + number + "]\n'watch path'='@/" + watch + "'\n'match pattern'=" + pattern +
           "\n'target file'='@/" + target + "'\n";
}

const std::string good = entry("1", "in", "'[.]mxf$'", "out/a");

const struct mistake {
    const char *name;
    std::string text;
    const char *line;
} mistakes[] = {
    {"None", good, "Entries: 1, errors: 0, warnings: 0\n"},
    {"BlankInKey", "\nwatch path = 1\n", "  line 2: watch path = 1\nError: File 'f.toml' cannot"},
    {"DottedSection", good + "[event.news]\n'x'=''", "of its dot: write [event_news]\nEntries: 1"},
    {"UnknownKey", good + "'target'=''", "key 'target' is ignored, the keys are 'watch path',"},
    {"ShellPattern", entry("1", "in", "'news*.mxf'", "out/a"), "is '^news.*[.]mxf$' meant?"},
    {"NoEnd", entry("1", "in", "'x.(mov|mxf)'", "out/a"), "is 'x[.](mov|mxf)$' meant?"},
    {"Outside", entry("1", "link", "'m$'", "out/a"), "'@/link' is '/', not below the"},
    {"SharedTarget", good + entry("0", "in/", "'m$'", "out/a"), "'@/out/a' is that of entry"},
};

const bool registered = register_rows("Mistake", mistakes, [](const mistake &row) {
    const temporary_tree tree;
    EXPECT_TRUE(has(check_text(row.text), row.line));
});

// The announcement of a pass, and what the pass then makes of it.
TEST(Check, DryRunSaysWhatThePassDoes) {
    const temporary_tree tree;
    const std::string text = entry("1", "in", "'n'", "out/t") +
                             entry("2", "other", "'a'", "out/t") +
                             entry("3", "in", "'m$'", "out/u");
    EXPECT_TRUE(has(check_text(text, true),
                    "Entry 'event1': would deliver 'n.mxf', and archive 't' as 'was.mxf'\n"
                    "Entry 'event2': would deliver 'a.mxf', and archive 't' as 'n.mxf'\n"
                    "Entry 'event3': nothing to deliver\n"));
    output_of(check_watch_entries);
    EXPECT_EQ(read_file("out/t") + read_file("out/ARCHIVE/n.mxf"), "1new");
}
