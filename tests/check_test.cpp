// The check program: the finding for each mistake, and the announcement of a pass.
#include "check/check.h"
#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

namespace {

struct storage : temporary_tree {
    storage() {
        make_tree(root, {{"in/x/", ""},
                         {"other/x/", ""},
                         {"out/dir/x", ""},
                         {"bad/ARCHIVE", ""},
                         {"link", "-> /"}});
        main_path = root;
    }
    // What the check of a text, in which '@' is the storage, or of a directory prints; the disk
    // stays as it is.
    std::string check(const std::string &text, check_options options = {}) const {
        configuration.clear();
        options.file = options.dir.empty() ? *this / "f.toml" : "";
        write_file(*this / "f.toml", replaced(text, "@", main_path));
        const file_tree before = tree_of(root);
        bool good = false;
        const std::string output = output_of([&] { good = ::check(options); });
        EXPECT_EQ(tree_of(root), before);
        EXPECT_EQ(good, output.find("errors: 0") != std::string::npos) << output;
        return replaced(output, main_path, "@");
    }
};

std::string entry(const std::string &name, const std::string &watch, const std::string &pattern,
                  const std::string &target) {
    return "[" + name + "]\n'watch path'='@/" + watch + "'\n'match pattern'=" + pattern +
           "\n'target file'='@/" + target + "'\n";
}

std::string pattern(const std::string &text) {
    return entry("event1", "in", text, "out/a");
}

std::string target(const std::string &name) {
    return entry("event1", "in", "'m$'", name);
}

const std::string good = pattern("'[.]mxf$'");
const std::string shared = entry("event0", "in/", "'m$'", "out/a") + good;

const struct mistake {
    const char *name;
    std::string text;
    const char *line;
} mistakes[] = {
    {"None", good, "Entries: 1, errors: 0, warnings: 0\n"},
    {"EmptyFile", "", "\"target file\" = \"/mnt/main/Play/news.mxf\""},
    {"BlankInKey", "\nwatch path = 1\n", "  line 2: watch path = 1\nError: File '@/f.toml' cannot"},
    {"DottedSection", good + "[event.news]\n'x'=''",
     "of its dot: write [event_news]\nEntries: 1, errors: 1"},
    {"UnknownKey", good + "'target'=''", "key 'target' is ignored, the keys are 'watch path',"},
    {"KeyOfAnotherKind", "[event1]\n'watch path'=1", "'watch path' is not one text in"},
    {"ShellPattern", pattern("'news*.mxf'"), "is '^news.*[.]mxf$' meant?"},
    {"NoEnd", pattern("'x.(mov|mxf)'"), "is 'x[.](mov|mxf)$' meant?"},
    {"SoundPatterns", pattern(R"(['', '^a[0-9]*[.]mxf$', '\d*.*x$', 'jpe?g$'])"), "warnings: 0"},
    {"Outside", entry("event1", "link", "'m$'", "out/a"), "'@/link' is '/', not below the"},
    {"LongName", target("out/" + std::string(247, 'x')),
     "name has 247 bytes, from 247 on it is delivered once"},
    {"SharedTarget", shared, "'event1': target file '@/out/a' is that of entry 'event0' too"},
};

const bool registered = register_rows("Mistake", mistakes, [](const mistake &row) {
    EXPECT_TRUE(has(storage().check(row.text), row.line));
});

} // namespace

// The announcement of a pass, and what the pass then makes of it.
TEST(Check, DryRunSaysWhatThePassDoes) {
    const storage main;
    make_tree(main.root, {{"in/n.mxf", "new"},
                          {"other/a.mxf", "1"},
                          {"out/t", "old"},
                          {"out/.t.metadir/metadata", "original filename=was.mxf\n"},
                          {"bad/in/b", "2"},
                          {"in/x.wav", "3"},
                          {"out/.w.metadir/.media.item.active.socket", ""}});
    const std::string text =
        entry("event1", "in", "'n'", "out/t") + entry("event2", "other", "'a'", "out/t") +
        entry("event3", "bad/in", "'b$'", "bad/t") + entry("event4", "in", "'m$'", "out/u") +
        entry("event5", "in", "'wav$'", "out/w");
    EXPECT_TRUE(has(main.check(text, {"", "", false, true}),
                    "Entry 'event1': would deliver 'n.mxf', and archive 't' as 'was.mxf'\n"
                    "Entry 'event2': would deliver 'a.mxf', and archive 't' as 'n.mxf'\n"
                    "Entry 'event3': stuck: cannot open the ARCHIVE directory, Not a directory\n"
                    "Entry 'event4': nothing to deliver\n"
                    "Entry 'event5': waits: the item in place is running, its marker is a file\n"));
    output_of(check_watch_entries);
    EXPECT_EQ(read_file(main / "out/t") + read_file(main / "out/ARCHIVE/n.mxf") +
                  read_file(main / "out/ARCHIVE/was.mxf") + read_file(main / "bad/in/b") +
                  read_file(main / "in/x.wav"),
              "1newold23");
}

TEST(Check, CommandLine) {
    const char *words[] = {"check", "f", "-ln", "-dt"};
    check_options options;
    EXPECT_EQ(output_of([&] { EXPECT_EQ(parse_check_command_line(4, words, options), 1); }),
              "Error in command line: Either a directory or a file\n");
    EXPECT_TRUE(options.dir == "t" && options.file == "f" && options.load_only && options.dry_run);
}
