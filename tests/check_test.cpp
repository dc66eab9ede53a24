#include "check/check.h"
#include "check/command_line.h"
#include "check/entry_rules.h"
#include "config/configuration_load.h"
#include "service/main_storage.h"
#include "tests/support.h"

#include <gtest/gtest.h>
#include <regex>

namespace {

std::string replaced(const std::string &text, const char *what, const std::string &by) {
    return std::regex_replace(text, std::regex(what), by);
}

struct storage {
    storage() {
        make_tree(tree.root, "in/x=\nother/x=\nout/dir/x=\nbad/ARCHIVE=\ndangling/x=\n"
                             "dangling/ARCHIVE -> gone\nlink -> /\nnew/Upload/a/x=\n"
                             "Upload/News/x=\nUpload/Weather/x=\nPlay/x=\n");
        main_path = fs::canonical(tree.root).string();
        configuration_path = tree / "f.toml";
    }
    temporary_tree tree;
};

// What the check of a text, or else of a folder tree, adds to the loader's lines, with '@' for the
// main storage, which stays as it is.
std::string check(const storage &main, const std::string &text, const char *dir = nullptr) {
    configuration.clear();
    write_file(configuration_path, replaced(text, "@", main_path));
    const std::string before = tree_of(main.tree.root);
    const captured_output output;
    const bool good =
        dir != nullptr ? check_directory(main.tree / dir) : check_configuration_file();
    EXPECT_EQ(tree_of(main.tree.root), before);
    const std::string lines = replaced("\n" + output.text(), main_path.c_str(), "@");
    EXPECT_EQ(good, lines.find("errors: 0") != std::string::npos) << lines;
    return replaced(lines, "\n(Added|Warning: Invalid|Entry |  |table array|@)[^\n]*", "");
}

} // namespace

TEST(check, each_mistake_has_its_line) {
    const storage main;
    const auto cases = read_cases(TEST_CASES "/checks.txt",
                                  {{"~", "Entry 'event1': "}, {"LONG", std::string(220, 'x')}});
    EXPECT_GE(cases.size(), 16U);
    for (auto row : cases) {
        const std::string text =
            replaced(row['+'], R"(\{(\S+) (\S+) (\S+) (\S+)\})",
                     "[$1]\n'watch path'='@/$2'\n'match pattern'=$3\n'target file'='@/$4'");
        EXPECT_EQ(check(main, text), "\n" + row['|']) << row['#'];
    }
}

TEST(check, folder_trees_the_sample_and_mounts) {
    const storage main;
    EXPECT_EQ(check(main, "", "new"), "\nEntries: 1, errors: 0, warnings: 0\n");
    const std::string sample = read_file(TEST_CASES "/../examples/vel4_watch_folder.toml");
    EXPECT_EQ(check(main, replaced(sample, "/mnt/main", "@")),
              "\nEntries: 2, errors: 0, warnings: 0\n");
    entry_facts facts = collect_facts(configuration["event_news"]);
    facts.target.mount += 1;
    facts.watch.rename_error = EROFS;
    const findings found = entry_findings(configuration["event_news"], facts);
    EXPECT_NE(found.at(0).text.find("cannot rename in watch path"), std::string::npos);
    EXPECT_NE(found.at(1).text.find("' are on two mounts, "), std::string::npos);
}

TEST(check, command_line) {
    const std::pair<std::vector<const char *>, const char *> rows[] = {
        {{"c", "f"}, "|f "},
        {{"c", "-d", "t"}, "t| "},
        {{"c", "f", "g"}, "|f Error in command line: Unrecognized token: g\n"},
        {{"c", "f", "-dt"}, "t|f Error in command line: Either a directory or a file\n"}};
    for (const auto &[words, expected] : rows) {
        std::string dir, file;
        const captured_output output;
        parse_check_command_line(static_cast<int>(words.size()), words.data(), dir, file);
        EXPECT_EQ(dir + "|" + file + " " + output.text(), expected);
    }
}
