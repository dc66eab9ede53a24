// The check program: the finding for each mistake, and the announcement of a pass.
#include "check/check.h"
#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

// What the check of a text prints, in which '@' is the storage; the disk stays as it is.
std::string check_text(const std::string &text, bool dry_run = false) {
    write_file("./f.toml", replaced(text, "@", main_path));
    configuration.clear();
    const file_tree before = tree_of(".");
    bool good = false;
    const std::string output = output_of([&] { good = check({"", "./f.toml", false, dry_run}); });
    EXPECT_EQ(tree_of("."), before);
    EXPECT_EQ(good, output.find("errors: 0") != std::string::npos) << output;
    return replaced(output, main_path, "@");
}

std::string entry(const std::string &number, const std::string &watch, const std::string &pattern,
                  const std::string &target) {
    return "[event" + number + "]\n'watch path'='@/" + watch + "'\n'match pattern'=" + pattern +
           "\n'target file'='@/" + target + "'\n";
}

std::string pattern(const std::string &text) {
    return entry("1", "in", text, "out/a");
}

const std::string good = pattern("'[.]mxf$'"), shared = good + entry("0", "in/", "'m$'", "out/a");

const struct mistake {
    const char *name;
    std::string text;
    const char *line;
} mistakes[] = {
    {"None", good, "Entries: 1, errors: 0, warnings: 0\n"},
    {"EmptyFile", "", "\"target file\" = \"/mnt/main/Play/news.mxf\""},
    {"BlankInKey", "\nwatch path = 1\n", "  line 2: watch path = 1\nError: File './f.toml' cannot"},
    {"DottedSection", good + "[event.news]\n'x'=''", "of its dot: write [event_news]\nEntries: 1"},
    {"UnknownKey", good + "'target'=''", "key 'target' is ignored, the keys are 'watch path',"},
    {"KeyOfAnotherKind", "[event1]\n'watch path'=1", "'watch path' is not one text in"},
    {"ShellPattern", pattern("'news*.mxf'"), "is '^news.*[.]mxf$' meant?"},
    {"NoEnd", pattern("'x.(mov|mxf)'"), "is 'x[.](mov|mxf)$' meant?"},
    {"SoundPatterns", pattern(R"(['', '^a[0-9]*[.]mxf$', '\d*.*x$', 'jpe?g$'])"), "warnings: 0"},
    {"Outside", entry("1", "link", "'m$'", "out/a"), "'@/link' is '/', not below the"},
    {"LongName", entry("1", "in", "'m$'", "out/" + std::string(247, 'x')), "from 247 on it is"},
    {"SharedTarget", shared, "'event1': target file '@/out/a' is that of entry 'event0' too"},
};

struct storage : temporary_tree {
    storage()
        : temporary_tree{{"in/x/", ""}, {"other/x/", ""}, {"out/dir/x", ""}, {"link", "-> /"}} {
        main_path = root;
        fs::current_path(root);
    }
};

const bool registered = register_rows("Mistake", mistakes, [](const mistake &row) {
    const storage tree;
    EXPECT_TRUE(has(check_text(row.text), row.line));
});

// The announcement of a pass, and what the pass then makes of it.
TEST(Check, DryRunSaysWhatThePassDoes) {
    const storage tree;
    make_tree(".", {{"in/n.mxf", "new"},
                    {"other/a.mxf", "1"},
                    {"out/t", "old"},
                    {"out/.t.metadir/metadata", "original filename=was.mxf\n"},
                    {"bad/in/b", "2"},
                    {"bad/ARCHIVE", ""},
                    {"in/x.wav", "3"},
                    {"out/.w.metadir/.media.item.active.socket", ""}});
    EXPECT_TRUE(
        has(check_text(entry("1", "in", "'n'", "out/t") + entry("2", "other", "'a'", "out/t") +
                           entry("3", "bad/in", "'b$'", "bad/t") +
                           entry("4", "in", "'m$'", "out/u") + entry("5", "in", "'wav$'", "out/w"),
                       true),
            "Entry 'event1': would deliver 'n.mxf', and archive 't' as 'was.mxf'\n"
            "Entry 'event2': would deliver 'a.mxf', and archive 't' as 'n.mxf'\n"
            "Entry 'event3': stuck: cannot open the ARCHIVE directory, Not a directory\n"
            "Entry 'event4': nothing to deliver\n"
            "Entry 'event5': waits: the item in place is running, its marker is a file\n"));
    output_of(check_watch_entries);
    file_tree after = tree_of(".");
    EXPECT_EQ(after["out/t"] + after["out/ARCHIVE/n.mxf"] + after["out/ARCHIVE/was.mxf"] +
                  after["bad/in/b"] + after["in/x.wav"],
              "1newold23");
}
