#include "check/check.h"
#include "check/entry_rules.h"
#include "config/configuration_load.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <gtest/gtest.h>
#include <linux/magic.h>

namespace {

struct storage {
    storage() {
        make_tree(tree.root, {{"in/x/", ""},
                              {"other/x/", ""},
                              {"out/dir/x", ""},
                              {"bad/ARCHIVE", ""},
                              {"link", "-> /"}});
        main_path = fs::canonical(tree.root).string();
    }
    temporary_tree tree;
};

// An event table, in which '@' is the main storage.
std::string entry(const std::string &name, const std::string &watch, const std::string &pattern,
                  const std::string &target) {
    return "[" + name + "]\n'watch path'='@/" + watch + "'\n'match pattern'=" + pattern +
           "\n'target file'='@/" + target + "'\n";
}

// What the check of a text, or of the directory in the options, prints; the disk stays as it is.
std::string check(const storage &main, const std::string &text, check_options options = {}) {
    configuration.clear();
    options.file = options.dir.empty() ? main.tree / "f.toml" : "";
    write_file(main.tree / "f.toml", replaced(text, "@", main_path));
    const std::string before = tree_of(main.tree.root);
    const captured_output output;
    const bool good = check(options);
    EXPECT_EQ(tree_of(main.tree.root), before);
    EXPECT_EQ(good, output.text().find("errors: 0") != std::string::npos) << output.text();
    return replaced(output.text(), main_path, "@");
}

testing::AssertionResult says(const std::string &lines, const std::string &part) {
    return (lines.find(part) == std::string::npos ? testing::AssertionFailure()
                                                  : testing::AssertionSuccess())
           << lines;
}

struct row {
    const char *name;
    std::string text;
    const char *line;
};

std::string pattern(const std::string &text) {
    return entry("event1", "in", text, "out/a");
}

std::string target(const std::string &name) {
    return entry("event1", "in", "'m$'", name);
}

std::string long_target(size_t size) {
    return target("out/" + std::string(size, 'x'));
}

const std::string good = pattern("'[.]mxf$'");
const std::string shared = entry("event0", "in/", "'m$'", "out/a") + good;

const row mistakes[] = {
    {"None", good, "Entries: 1, errors: 0, warnings: 0\n"},
    {"EmptyFile", "", "\"target file\" = \"/mnt/main/Play/news.mxf\""},
    {"BlankInKey", "\nwatch path = 1\n", "  line 2: watch path = 1\nError: File '@/f.toml' cannot"},
    {"MissingComma", "a=['x'\n'y']", "a comma or ] is missing in the line before"},
    {"ByteOrderMark", "\xEF\xBB\xBF[event1]", "byte order mark"},
    {"DottedSection", good + "[event.news]\n'x'=''",
     "of its dot: write [event_news]\nEntries: 1, errors: 1"},
    {"UpperCase", good + "[Event_News]", "its name must begin with 'event', in lower case"},
    {"OtherArray", good + "[[events]]", "Section [[events]] is ignored"},
    {"LooseKey", "event2='x'\n" + good, "Key 'event2' is ignored"},
    {"UnknownKey", good + "'target'=''", "key 'target' is ignored, the keys are 'watch path',"},
    {"KeyOfAnotherKind", "[event1]\n'watch path'=1", "'watch path' is not one text in"},
    {"KeysMissing", "[event1]", "'target file' is missing, the section is dropped\nError: nothing"},
    {"TwoOfOneName", "[[event]]\n[eventarrayitem0]", "one of them is dropped"},
    {"PatternDoesNotCompile", pattern("'('"), "pattern '(', the section is dropped: Unable"},
    {"PatternsAreNumbers", pattern("[1]"), "no text in quotes in 'match pattern'"},
    {"ShellPattern", pattern("'news*.mxf'"), "is '^news.*[.]mxf$' meant?"},
    {"ShellStar", pattern("['a$', '*.mxf']"), "is '[.]mxf$' meant?"},
    {"NoEnd", pattern("'x.(mov|mxf)'"), "is 'x[.](mov|mxf)$' meant?"},
    {"HiddenFiles", pattern("'^[.]news'"), "is '^news' meant?"},
    {"SoundPatterns", pattern(R"(['', '^a[0-9]*[.]mxf$', '\d*.*x$', 'jpe?g$'])"), "warnings: 0"},
    {"RelativePath", replaced(good, "'@/in'", "'in'"), "must be absolute: begin it with '/'\nEnt"},
    {"NoWatchFolder", entry("event1", "no", "'m$'", "out/a"), "open watch path '@/no', No such"},
    {"Outside", entry("event1", "link", "'m$'", "out/a"), "'@/link' is '/', not below the"},
    {"NoFileName", target("out/"), "target file '@/out/' has no file name"},
    {"ArchiveIsNoDirectory", target("bad/a"), "ARCHIVE directory '@/bad/ARCHIVE', Not a"},
    {"TargetIsFolder", target("out/dir"), "the target is no regular file"},
    {"MetadataName", target("out/.a.metadir"), "has the name of a metadata directory"},
    {"Name205", long_target(205), "errors: 0, warnings: 0"},
    {"Name214", long_target(214), "name has 214 bytes, in ARCHIVE it may be without its metadata"},
    {"Name246", long_target(246), "246 bytes, without a recorded name it is never"},
    {"Name247", long_target(247), "name has 247 bytes, from 247 on it is delivered once"},
    {"OwnTarget", entry("event1", "out", "'a$'", "out/a"), "takes the target 'a' of"},
    {"SharedTarget", shared, "'event1': target file '@/out/a' is that of entry 'event0' too"},
    {"SharedFolder", shared, "'event1': watch path '@/in' is that of entry 'event0' too"},
};

class Mistakes : public testing::TestWithParam<row> {};

} // namespace

TEST_P(Mistakes, HaveTheirLine) {
    const storage main;
    EXPECT_TRUE(says(check(main, GetParam().text), GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(Check, Mistakes, testing::ValuesIn(mistakes),
                         [](const auto &one) { return one.param.name; });

TEST(Check, LoadDoesNotJudgeTheDisk) {
    const storage main;
    const check_options load{"", "", true, false};
    EXPECT_TRUE(
        says(check(main, good + entry("event2", "no", "'m$'", "no/a"), load), "errors: 0, w"));
    EXPECT_TRUE(says(check(main, "[event1]\n", load), "nothing to watch"));
}

TEST(Check, RemoteFileSystemsAndMounts) {
    const storage main;
    check(main, good);
    known_entry known = collect_facts(configuration["event1"]);
    known.target.mount += 1;
    known.watch.type = NFS_SUPER_MAGIC;
    known.watch.rename_error = EROFS;
    const captured_output output;
    judge_entry(known);
    for (const char *part :
         {"cannot rename in watch path", "' is on NFS: ", "are on two file systems or mounts, "})
        EXPECT_TRUE(says(output.text(), part));
}

// The announcement of a pass, and what the pass then makes of it.
TEST(Check, DryRunSaysWhatThePassDoes) {
    const storage main;
    make_tree(main.tree.root, {{"in/n.mxf", "new"},
                               {"other/a.mxf", "1"},
                               {"out/t", "old"},
                               {"out/.t.metadir/metadata", "original filename=was.mxf\n"},
                               {"bad/in/b", "2"}});
    const std::string text =
        entry("event1", "in", "'n'", "out/t") + entry("event2", "other", "'a'", "out/t") +
        entry("event3", "bad/in", "'b$'", "bad/t") + entry("event4", "in", "'m$'", "out/u");
    EXPECT_TRUE(says(check(main, text, {"", "", false, true}),
                     "Entry 'event1': would deliver 'n.mxf', and archive 't' as 'was.mxf'\n"
                     "Entry 'event2': would deliver 'a.mxf', and archive 't' as 'n.mxf'\n"
                     "Entry 'event3': stuck: cannot open the ARCHIVE directory, Not a directory\n"
                     "Entry 'event4': nothing to deliver\n"));
    const captured_output output;
    check_watch_entries();
    EXPECT_EQ(read_file(main.tree / "out/t") + read_file(main.tree / "out/ARCHIVE/n.mxf") +
                  read_file(main.tree / "out/ARCHIVE/was.mxf") + read_file(main.tree / "bad/in/b"),
              "1newold2");
}

TEST(Check, DryRunNamesWhoHoldsAFile) {
    const storage main;
    make_tree(main.tree.root,
              {{"new/Upload/a/n", ""}, {"new/Upload/a/m", ""}, {"new/Upload/b/", ""}});
    check_options dry{main.tree / "new", "", false, true};
    EXPECT_TRUE(says(check(main, "", dry), "': would deliver '"));
    make_tree(main.tree.root, {{"new/Play/.a.metadir/.media.item.active.socket", ""}});
    EXPECT_TRUE(says(check(main, "", dry),
                     "is running, its marker is a file; files that wait behind it: 1\n"));
}

TEST(Check, CommandLine) {
    const std::pair<std::vector<const char *>, const char *> rows[] = {
        {{"c", "f", "--load", "--dry-run"}, "|f11 "},
        {{"c", "-ln", "-d", "t"}, "t|11 "},
        {{"c", "f", "g"}, "|f00 Error in command line: Unrecognized token: g\n"},
        {{"c", "f", "-dt"}, "t|f00 Error in command line: Either a directory or a file\n"}};
    for (const auto &[words, expected] : rows) {
        check_options options;
        const captured_output output;
        parse_check_command_line(static_cast<int>(words.size()), words.data(), options);
        EXPECT_EQ(options.dir + "|" + options.file + std::to_string(options.load_only) +
                      std::to_string(options.dry_run) + " " + output.text(),
                  expected);
    }
}
