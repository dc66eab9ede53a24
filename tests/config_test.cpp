#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "tests/support.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

// An entry as the case file writes it.
std::string shown(const WatchEntry &entry) {
    std::string text = entry.name + ": " + entry.watch_path + " > " + entry.target_file;
    for (const RegexState &state : entry.patterns)
        text += " " + state.pattern;
    return text + "\n";
}

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
    const std::vector<std::pair<std::string, std::string>> escapes = {
        {"@P", "\"watch path\" = 'w'\n\"target file\" = 't'"},
        {"@[", std::string(150, '[')},
        {"@.", std::string(150, '.')},
        {"@{", replaced(std::string(150, '{'), "{", "{a}=")}};
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    const auto cases = read_cases(TEST_CASES "/configurations.txt", escapes);
    EXPECT_GE(cases.size(), 13U);
    for (auto row : cases) {
        write_file(configuration_path, row['+']);
        configuration.clear();
        const captured_output lines;
        EXPECT_EQ(load_configuration(), row.count('!') == 0) << row['#'];
        EXPECT_EQ(lines.text(), replaced(row['|'], "PATH", configuration_path)) << row['#'];
        std::string entries;
        for (const auto &[name, entry] : configuration)
            entries += shown(entry);
        EXPECT_EQ(entries, row['=']) << row['#'];
    }
}

TEST(ConfigurationLoad, WaitsForNothingThatIsNoFile) {
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
    EXPECT_EQ(shown(configuration.at("event")), "event: w > t a b\n");
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
