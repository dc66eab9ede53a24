#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "tests/support.h"

#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace {

// The registry as the case file writes it.
std::string entries() {
    std::string text;
    for (const auto &[key, entry] : configuration) {
        text += entry.name + ": " + entry.watch_path + " > " + entry.target_file;
        for (const RegexState &state : entry.patterns)
            text += " " + state.pattern;
        text += "\n";
    }
    return text;
}

std::string repeated(const std::string &text) {
    std::string all;
    for (int i = 0; i < 100000; ++i)
        all += text;
    return all;
}

} // namespace

TEST(RegexState, EveryCopyHasAFormOfItsOwn) {
    for (const char *pattern : {"a", "("}) {
        const bool is_good = *pattern == 'a';
        const std::vector<RegexState> states(3, RegexState(pattern));
        std::set<pcre *> forms;
        for (const RegexState &state : states) {
            EXPECT_EQ(state.matches("(A"), is_good);
            EXPECT_EQ(state.error.empty(), is_good);
            EXPECT_EQ(state.pattern, pattern);
            forms.insert(state.compiled);
        }
        EXPECT_EQ(forms.size(), is_good ? states.size() : 1) << pattern;
    }
}

TEST(ConfigurationLoad, TurnsEventTablesIntoEntries) {
    const std::vector<std::pair<std::string, std::string>> escapes = {
        {"@P", "\"watch path\" = 'w'\n\"target file\" = 't'"},
        {"@t", "\t"},
        {"@[", repeated("[")},
        {"@.", repeated(".a")},
        {"@{", repeated("{a=")}};
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    auto cases = read_cases(TEST_CASES "/configurations.txt", escapes);
    EXPECT_GE(cases.size(), 20U);
    for (auto &row : cases) {
        write_file(configuration_path, row['+']);
        configuration.clear();
        const captured_output lines;
        EXPECT_EQ(load_configuration(), row.count('!') == 0) << row['#'];
        EXPECT_EQ(lines.text(), replaced(row['|'], "PATH", configuration_path)) << row['#'];
        EXPECT_EQ(entries(), row['=']) << row['#'];
        for (const char mark : {'~', '-'})
            if (row.count(mark) == 1) {
                row[mark].pop_back();
                EXPECT_EQ(configuration["event"].matches(row[mark]), mark == '~') << row['#'];
            }
    }
}

TEST(ConfigurationLoad, ReadsOnlyAFileOfReasonableSize) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    const captured_output lines;
    const size_t before = open_descriptors();
    EXPECT_FALSE(load_configuration());
    mkfifo(configuration_path.c_str(), 0600); // with nobody who writes: an open would wait for ever
    EXPECT_FALSE(load_configuration());
    EXPECT_EQ(replaced(lines.text(), configuration_path, "PATH"),
              "PATH: No such file or directory\n"
              "PATH: TOML parse error: not a regular file\n");
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child was left";
}

TEST(ConfigurationLoad, TakesOnlyTextsFromAMixedArrayAndKeepsTheFirstOfAName) {
    configuration.clear();
    std::istringstream text(
        "'watch path' = 'w'\n'target file' = 't'\n'match pattern' = ['a', 'b']");
    const auto table = cpptoml::parser(text).parse();
    auto &patterns = table->get_array("match pattern")->get();
    patterns.insert(patterns.begin() + 1, cpptoml::make_array());
    const captured_output lines;
    add_event_table("event", table);
    add_event_table("event", cpptoml::make_table());
    EXPECT_EQ(lines.text(), "Added section 'event'\nWarning: Duplicate section 'event'\n");
    EXPECT_EQ(entries(), "event: w > t a b\n");
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
    fs::remove(tree / "Upload/file");
    configuration = build_directory_configuration(root + "/");
    EXPECT_EQ(replaced(entries(), root, "ROOT"),
              "event0: ROOT//Upload/.hidden > ROOT//Play/.hidden \n");
    EXPECT_EQ(tree_of(root), "Play/\nUpload/.hidden/x=x\n");
    EXPECT_EQ(replaced(lines.text(), root, "ROOT"),
              "Warning: cannot list 'ROOT/Upload/', No such file or directory\n"
              "Warning: cannot create 'ROOT/Play/', File exists\n");
}
