// The configuration file, its patterns, and the folder tree.
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "tests/support.h"

// The registry: keys, paths and patterns.
std::string entries() {
    std::string all;
    for (const auto &[key, entry] : configuration) {
        all += key + " " + entry.watch_path + " " + entry.target_file;
        for (const RegexState &state : entry.patterns)
            all += " " + state.pattern;
        all += "\n";
    }
    return all;
}

// Loads a text, in which '@' stands for the lines of both paths. Returns what
// is printed.
std::string load(const std::string &text) {
    const std::regex at("@");
    const char *paths = "'watch path' = 'w'\n'target file' = 't'\n";
    const TemporaryTree tree{{"c.toml", std::regex_replace(text, at, paths)}};
    write_file("good", std::string("[event]\n") + paths);
    mkfifo("fifo", 0600); // with nobody who writes: an open would wait for ever
    configuration_path = text.empty() ? "gone" : "c.toml";
    configuration.clear();
    return output_of([] { (void)load_configuration(); });
}

// Levels that fit, and that are too deep.
constexpr size_t fits = 41900, deep = 100000;
const std::string too_deep = "nested too deep\n";

std::string repeat(const char *text, size_t times) {
    std::string repeated;
    while (times-- > 0)
        repeated += text;
    return repeated;
}

// The line is part of what the loader prints, the entries are those of the
// registry afterwards.
const struct LoadCase {
    const char *name;
    std::string file, line, entries = {};
} load_cases[] = {
    {"NoFile", "", "gone: No such file or directory\n"},
    {"Fifo", "-> fifo", "c.toml: TOML parse error: not a regular file\n"},
    {"LinkToAFile", "-> good", "section 'event'\n", "event w t\n"},
    {"Nothing", "[even]\n@[Event1]\n@[my_event]\n@[[eventlist]]\n@", "||"},
    {"Patterns", "[event]\n'match pattern' = ['b', 'a']\n@", "section", "event w t b a\n"},
    {"NoPattern", "[event]\n'match pattern' = 5\n@[event.sub]\n@", "section", "event w t\n"},
    {"NumberedArray", "[[event]]\n[[event]]\n@", "Warning: Invalid", "eventarrayitem1 w t\n"},
    {"TakenName", "[[event]]\n@[eventarrayitem0]\n@", "Duplicate", "eventarrayitem0 w t\n"},
    {"NulInAPath", "[event]\n'watch path' = \"\\u0000x\"\n'target file' = 't'", "Invalid section"},
    {"BadEscape", "[event]\n'match pattern' = ['a', 'C:\\media\\upload']\n@",
     "Warning: Invalid section 'event'\nEntry 'event'\n  Watch:      'w'\n  Target:     't'\n"
     "  Match pattern:\n    Pattern:       'a'\n    Ready:         Yes \n  Match pattern:\n"
     "    Pattern:       'C:\\media\\upload'\n    Ready:         No Unable to compile regex. "
     "Error="},
    {"DeepTables", "x=" + repeat("{a=", fits) + "1" + repeat("}", fits), "||"},
    {"LinesTooDeep", "x=" + repeat("[\n", deep) + repeat("]", deep), too_deep},
    {"TablesTooDeep", "x=" + repeat("{a.b=", deep * 2 / 5), too_deep},
};

const bool registered = register_rows("Load", load_cases, [](const LoadCase &row) {
    EXPECT_TRUE(has("|" + load(row.file) + "|", row.line));
    EXPECT_EQ(entries(), row.entries);
});

TEST(Load, TakesTwentyThousandPatternsAndSections) {
    std::string text = "x = ''' '''\n[event]\n'match pattern' = [" +
                       repeat("'^news[0-9]_12\\.mxf$', ", 20000) + "]\n@";
    for (int i = 0; i < 20000; ++i)
        text += "['event" + std::to_string(i) + "']\n'match pattern' = '[.]mxf$'\n@";
    load(text);
    EXPECT_EQ(configuration.size(), 20001U);
    EXPECT_EQ(configuration["event"].patterns.size(), 20000U);
}

// The matcher recurses. The loader has seen to its stack.
TEST(Regex, RecursesDeepAndTakesALetterThatIsNoEscape) {
    EXPECT_TRUE(RegexState("^\\m\\F[\\y]$").matches("MFY"));
    load("[event]\n@'match pattern' = '^(.(?:x?\?){500}(?1)?)!$'");
    EXPECT_FALSE(configuration["event"].matches("!" + std::string(253, 'a')));
}

TEST(Discovery, EveryItemIsAnEntry) {
    const TemporaryTree tree{{"a/Upload/", ""}, {"b/Upload/.x/y", ""}, {"c/Upload/z", ""}};
    write_file("c/Play", "x");
    const std::string lines = output_of([] {
        for (const char *dir : {"gone", "a", "c", "b"})
            configuration = build_directory_configuration(dir);
    });
    EXPECT_EQ(lines, "Warning: cannot list 'gone/Upload/', No such file or directory\n"
                     "Warning: cannot create 'c/Play/', File exists\n");
    EXPECT_EQ(entries(), "event0 b/Upload/.x b/Play/.x \n");
    EXPECT_TRUE(fs::is_directory("b/Play"));
    EXPECT_FALSE(fs::exists("a/Play"));
}
