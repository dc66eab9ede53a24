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

const std::string numbered = entry("eventarrayitem1"), too_deep = "nested too deep\n";
const std::string deep(100000, '.'), half(3000, '['); // twice the half is too deep

// In a file '@' stands for the lines of both paths. The line is part of what the loader prints, the
// entries are those of the registry afterwards.
const struct load_case {
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
    {"DeepArray", "[event]\n@x=" + half + std::string(3000, ']'), "section", entry("event")},
    {"ManySections", "  [[event]]\nx='" + half + "'\n[[event]]\nx='" + half + "'", "Invalid"},
    {"SectionTooDeep", "[event" + deep + "]", too_deep},
    {"DeepBehindString", "x = ''' '''\n" + half + "\n[event]\n" + half, too_deep},
    {"SectionWithinArray", "x = " + half + "\n[event]\nx = " + half, "parse value type"},
};

void check_load(const load_case &row) {
    const std::string paths = "'watch path' = 'w'\n'target file' = 't'\n";
    const temporary_tree tree{{"c.toml", std::regex_replace(row.file, std::regex("@"), paths)},
                              {"good", "[event]\n" + paths}};
    mkfifo("fifo", 0600); // with nobody who writes: an open would wait for ever
    configuration_path = row.file.empty() ? "gone" : "c.toml";
    configuration.clear();
    const std::string lines = output_of([] { (void)try_load_configuration(); });
    EXPECT_TRUE(has("|" + lines + "|", row.line));
    EXPECT_EQ(entries(), row.entries);
}

const bool registered = register_rows("Load", load_cases, check_load);

TEST(Discovery, EveryItemIsAnEntry) {
    const temporary_tree tree{
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
