#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "tests/support.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

// Loads a configuration of that text. The lines it prints come back with the path as "PATH".
std::string load_text(const std::string &text, bool &loaded) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, text);
    configuration.clear();
    const captured_output lines;
    loaded = load_configuration();
    std::string printed = lines.text();
    if (const size_t at = printed.find(configuration_path); at != std::string::npos)
        printed.replace(at, configuration_path.size(), "PATH");
    return printed;
}

// The registry as "name:watch>target(pattern,...);".
std::string shown(const watch_registry &registry) {
    std::string text;
    for (const auto &[key, entry] : registry) {
        text += key + ":" + entry.watch_path + ">" + entry.target_file + "(";
        for (const RegexState &state : entry.patterns)
            text += state.pattern + ",";
        text += ");";
    }
    return text;
}

constexpr char paths[] = "\"watch path\"='w'\n\"target file\"='t'\n";

} // namespace

TEST(RegexState, MatchesAnywhereInAnyCaseOnBytes) {
    const struct {
        const char *pattern, *name;
        bool matches;
    } rows[] = {{"", ".hidden", true},          {"\\.mxf$", "A.MXF", true},
                {"NEWS", "the news.wav", true}, {"^news", "the news", false},
                {"^.\xff$", "a\xff", true},     {"(", "(", false}};
    for (const auto &row : rows) {
        const RegexState state(row.pattern);
        const RegexState copy(state); // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_EQ(state.matches(row.name), row.matches) << row.pattern;
        EXPECT_EQ(copy.matches(row.name), row.matches) << row.pattern;
        EXPECT_EQ(copy.is_ready(), *row.pattern != '(');
        EXPECT_EQ(copy.error, state.error);
        EXPECT_TRUE(!copy.is_ready() || copy.compiled != state.compiled) << "a form of its own";
    }
    EXPECT_EQ(RegexState("(").error, "Unable to compile regex. Error=missing ) at char 1");
}

TEST(ConfigurationLoad, TurnsEventTablesIntoEntries) {
    const std::string invalid = "Warning: Invalid section 'event'\nEntry 'event'\n";
    const struct {
        const char *why;
        std::string text, lines, entries;
    } rows[] = {
        {"nothing", "", "", ""},
        {"a pattern, and an unknown key",
         std::string("[event]\nx=1\n\"match pattern\"='a'\n") + paths, "Added section 'event'\n",
         "event:w>t(a,);"},
        {"patterns in order", std::string("[events]\n\"match pattern\"=['b','a','']\n") + paths,
         "Added section 'events'\n", "events:w>t(b,a,,);"},
        {"no pattern, dotted tables", std::string("[event]\n") + paths + "[event.sub]\n" + paths,
         "Added section 'event'\n", "event:w>t();"},
        {"an array: the index counts every table", std::string("[[event]]\n[[event]]\n") + paths,
         "table array\nWarning: Invalid section 'eventarrayitem0'\nEntry 'eventarrayitem0'\n"
         "  Watch:      ''\n  Target:     ''\nAdded section 'eventarrayitem1'\n",
         "eventarrayitem1:w>t();"},
        {"passed over", std::string("event5=1\n[Event1]\n") + paths + "[[eventlist]]\n" + paths, "",
         ""},
        {"a number is no path", "[event]\n\"watch path\"=5\n\"target file\"=['t']\n",
         invalid + "  Watch:      ''\n  Target:     ''\n", ""},
        {"a pattern that does not compile",
         std::string("[event]\n\"match pattern\"=['a','(']\n") + paths,
         invalid + "  Watch:      'w'\n  Target:     't'\n  Match pattern:\n"
                   "    Pattern:       'a'\n    Ready:         Yes \n  Match pattern:\n"
                   "    Pattern:       '('\n    Ready:         No Unable to compile regex. "
                   "Error=missing ) at char 1\n",
         ""},
        {"brackets in strings do not nest",
         "# " + std::string(200, '[') + "\n[event]\nx='''" + std::string(150, '[') + "'''\n" +
             paths,
         "Added section 'event'\n", "event:w>t();"},
    };
    for (const auto &row : rows) {
        bool loaded = false;
        const std::string lines = load_text(row.text, loaded);
        EXPECT_TRUE(loaded) << row.why << lines;
        EXPECT_EQ(lines, row.lines) << row.why;
        EXPECT_EQ(shown(configuration), row.entries) << row.why;
    }
}

TEST(ConfigurationLoad, RefusesWhatItCannotRead) {
    const std::string deep(100000, '['), dots = "a" + std::string(100000, '.') + "b=1\n";
    const struct {
        std::string text, lines;
    } rows[] = {
        {"[event", "PATH: TOML parse error: Unterminated table declaration"},
        {"a=" + deep, "PATH: TOML parse error: nested too deeply\n"},
        {"a=\"\\\"\"\nb='\\'\nc=\"\"\nd=''''\"'''\ne=" + deep,
         "PATH: TOML parse error: nested too deeply\n"},
        {dots, "PATH: TOML parse error: nested too deeply\n"},
    };
    for (const auto &row : rows) {
        bool loaded = true;
        const std::string lines = load_text(row.text, loaded);
        EXPECT_FALSE(loaded);
        EXPECT_EQ(lines.substr(0, row.lines.size()), row.lines);
        EXPECT_TRUE(configuration.empty());
    }
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    const captured_output lines;
    const size_t before = open_descriptors();
    EXPECT_FALSE(load_configuration());
    mkfifo(configuration_path.c_str(),
           0600); // nobody writes to it: a plain open would wait for ever
    EXPECT_FALSE(load_configuration());
    fs::remove(configuration_path);
    fs::create_directory(configuration_path);
    EXPECT_FALSE(load_configuration());
    const std::string unfit = configuration_path + ": TOML parse error: not a regular file\n";
    EXPECT_EQ(lines.text(), configuration_path + ": No such file or directory\n" + unfit + unfit);
    EXPECT_EQ(open_descriptors(), before);
}

TEST(ConfigurationLoad, TakesOnlyTextsFromAMixedArrayAndKeepsTheFirstOfAName) {
    configuration.clear();
    const auto table = cpptoml::make_table();
    table->insert("watch path", "w");
    table->insert("target file", "t");
    const auto array = cpptoml::make_array();
    array->get().push_back(cpptoml::make_value<std::string>("a"));
    array->get().push_back(cpptoml::make_value<int64_t>(5));
    array->get().push_back(cpptoml::make_array());
    array->get().push_back(cpptoml::make_value<std::string>("b"));
    table->insert("match pattern", array);
    const captured_output lines;
    add_event_table("event", table);
    add_event_table("event", cpptoml::make_table());
    EXPECT_EQ(lines.text(), "Added section 'event'\nWarning: Duplicate section 'event'\n");
    EXPECT_EQ(shown(configuration), "event:w>t(a,b,);");
}

TEST(DirectoryDiscovery, EveryItemIsAnEntryAndNoFailureLeaves) {
    const temporary_tree tree;
    const std::string root = tree.root.string();
    const captured_output lines;
    EXPECT_TRUE(build_directory_configuration(root).empty());
    fs::create_directories(tree / "Upload");
    EXPECT_TRUE(build_directory_configuration(root).empty());
    EXPECT_EQ(tree_of(root), "Upload/\n") << "nothing to play, nothing made";
    write_file(tree / "Upload/file", "x");
    write_file(tree / "Upload/.hidden/x", "x");
    write_file(tree / "Play", "in the way");
    EXPECT_EQ(build_directory_configuration(root).size(), 2U);
    fs::remove(tree / "Play");
    std::string targets;
    for (const auto &[key, entry] : build_directory_configuration(root + "/")) {
        EXPECT_EQ(key, entry.name);
        EXPECT_TRUE(entry.is_valid() && entry.matches("anything"));
        EXPECT_EQ(entry.watch_path.substr(0, root.size() + 9), root + "//Upload/");
        targets += entry.target_file.substr(root.size()) + ";";
    }
    EXPECT_TRUE(targets == "//Play/file;//Play/.hidden;" ||
                targets == "//Play/.hidden;//Play/file;");
    EXPECT_EQ(tree_of(root), "Play/\nUpload/.hidden/x=x\nUpload/file=x\n");
    EXPECT_EQ(lines.text(), "Warning: cannot list '" + root +
                                "/Upload/', No such file or directory\n"
                                "Warning: cannot create '" +
                                root + "/Play/', File exists\n");
}
