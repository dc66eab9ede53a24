// The configuration file, its patterns, and the folder tree.
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "tests/support.h"

// The registry, as its entries print themselves.
std::string entries() {
    const auto print = [] {
        for (const auto &[key, entry] : configuration)
            entry.print(stdout);
    };
    return output_of(print, STDOUT_FILENO);
}

std::string entry(const std::string &name) {
    return "Entry '" + name + "'\n  Watch:      'w'\n  Target:     't'\n";
}

std::string repeat(const char *text, size_t times) {
    std::string repeated;
    while (times-- > 0)
        repeated += text;
    return repeated;
}

const std::string numbered = entry("eventarrayitem1"), too_deep = "nested too deep\n";
constexpr size_t fits = 41900, is_too_deep = 100000; // levels

// In a file '@' stands for the lines of both paths. The line is part of what the loader prints, the
// entries are those of the registry afterwards.
const struct LoadCase {
    const char *name;
    std::string file, line, entries = {};
} load_cases[] = {
    {"NoFile", "", "gone: No such file or directory\n"},
    {"Fifo", "-> fifo", "c.toml: TOML parse error: not a regular file\n"},
    {"LinkToAFile", "-> good", "section 'event'\n", entry("event")},
    {"Nothing", "[even]\n@[Event1]\n@[my_event]\n@[[eventlist]]\n@", "||"},
    {"Patterns", "[events]\n'match pattern' = ['b', 'a']\n@", "section",
     entry("events") + "  Match pattern:\n    Pattern:       'b'\n    Ready:         Yes \n"
                       "  Match pattern:\n    Pattern:       'a'\n    Ready:         Yes \n"},
    {"NoPattern", "[event]\n'match pattern' = 5\n@[event.sub]\n@", "section", entry("event")},
    {"NumberedArray", "[[event]]\n[[event]]\n@", "table array\nWarning: Invalid", numbered},
    {"NumberForPath", "[event]\n'target file' = 't'\n'watch path' = 5", "Entry 'event'\n  Watch:"},
    {"BadPattern", "[event]\n'match pattern' = '('\n@", "Unable to compile regex. Error="},
    {"TakenName", "[[event]]\n[[event]]\n@[eventarrayitem1]\n@", "Warning: Duplicate", numbered},
    {"NulInAPath", "[event]\n'watch path' = \"\\u0000x\"\n'target file' = 't'", "Invalid section"},
    {"BadEscape", "[event]\n'match pattern' = 'C:\\media\\upload'\n@", "regex. Error="},
    {"DeepArrays", "[event]\n@x=" + repeat("[", fits) + repeat("]", fits), "section",
     entry("event")},
    {"DeepTables", "[event]\n@x=" + repeat("{a=", fits) + "1" + repeat("}", fits), "section",
     entry("event")},
    {"DeepSection", "[event" + repeat(".a", fits) + "]", "Invalid"},
    {"DeepKey", "[event]\na" + repeat(".a", fits) + "=1\n", "Invalid"},
    {"DeepEachOther", "x=" + repeat("[{a=", fits / 2) + "1" + repeat("}]", fits / 2), "||"},
    {"ArraysTooDeep", "x=" + repeat("[", is_too_deep) + repeat("]", is_too_deep), too_deep},
    {"LinesTooDeep", "x=" + repeat("[\n", is_too_deep) + repeat("]", is_too_deep), too_deep},
    {"TablesTooDeep", "x=" + repeat("{a=", is_too_deep), too_deep},
    {"SectionTooDeep", "[event" + repeat(".a", is_too_deep) + "]", too_deep},
    {"KeyTooDeep", "a" + repeat(".a", is_too_deep) + "=1", too_deep},
};

void check_load(const LoadCase &row) {
    const std::string paths = "'watch path' = 'w'\n'target file' = 't'\n";
    const TemporaryTree tree{{"c.toml", std::regex_replace(row.file, std::regex("@"), paths)},
                             {"good", "[event]\n" + paths}};
    mkfifo("fifo", 0600); // with nobody who writes: an open would wait for ever
    configuration_path = row.file.empty() ? "gone" : "c.toml";
    configuration.clear();
    const std::string lines = output_of([] { (void)load_configuration(); });
    EXPECT_TRUE(has("|" + lines + "|", row.line));
    EXPECT_EQ(entries(), row.entries);
}

const bool registered = register_rows("Load", load_cases, check_load);

TEST(Load, TakesTwentyThousandPatternsAndSections) {
    const std::string paths = "'watch path' = 'w'\n'target file' = 't.mxf'\n";
    std::string file = "x = ''' '''\n[event]\n'match pattern' = [" +
                       repeat("'^news[0-9]_12\\.mxf$', ", 20000) + "]\n" + paths;
    for (int i = 0; i < 20000; ++i)
        file += "['event" + std::to_string(i) + "']\n'match pattern' = '[.]mxf$'\n" + paths;
    const TemporaryTree tree{{"c.toml", file}};
    configuration_path = "c.toml";
    configuration.clear();
    output_of([] { (void)load_configuration(); });
    EXPECT_EQ(configuration.size(), 20001U);
    EXPECT_EQ(configuration["event"].patterns.size(), 20000U);
}

TEST(Regex, ALetterThatIsNoEscapeStandsForItself) {
    EXPECT_TRUE(RegexState("^\\m\\F[\\y]$").matches("MFY"));
}

// The matcher recurses. The loader has seen to its stack.
TEST(Regex, APatternThatRecursesDeepEndsNothing) {
    const TemporaryTree tree{{"c.toml", "[event]\n'watch path' = 'w'\n'target file' = 't'\n"
                                        "'match pattern' = '^(.(?:x?\?){500}(?1)?)!$'"}};
    configuration_path = "c.toml";
    configuration.clear();
    output_of([] { (void)load_configuration(); });
    EXPECT_FALSE(configuration["event"].matches("!" + std::string(253, 'a')));
}

TEST(Discovery, EveryItemIsAnEntry) {
    const TemporaryTree tree{
        {"a/Upload/", ""}, {"b/Upload/.x/y", ""}, {"c/Upload/z", ""}, {"c/Play", "x"}};
    const std::string lines = output_of([] {
        for (const char *dir : {"gone", "a", "c", "b"})
            configuration = build_directory_configuration(dir);
    });
    EXPECT_EQ(lines, "Warning: cannot list 'gone/Upload/', No such file or directory\n"
                     "Warning: cannot create 'c/Play/', File exists\n");
    EXPECT_EQ(entries(), "Entry 'event0'\n  Watch:      'b/Upload/.x'\n  Target:     'b/Play/.x'\n"
                         "  Match pattern:\n    Pattern:       ''\n    Ready:         Yes \n");
    EXPECT_TRUE(fs::is_directory("b/Play") && !fs::exists("a/Play"));
}
