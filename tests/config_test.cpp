// The configuration file, its patterns, and the folder tree.
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "tests/support.h"

namespace {

// The registry as text: "NAME: WATCH > TARGET PATTERN...", one entry a line.
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

std::string times(int count, const std::string &text) {
    std::string all;
    while (count-- > 0)
        all += text;
    return all;
}

const std::string paths = "'watch path' = 'w'\n'target file' = 't'\n";
const std::string too_deep = "TOML parse error: nested too deep\n";
constexpr int many = 100000;

const struct load_case {
    const char *name;
    std::string file;
    std::string line;         // one that the loader prints
    std::string entries = {}; // what the registry has then
} load_cases[] = {
    {"Nothing",
     "[even]\n" + paths + "[Event1]\n" + paths + "[my_event]\n" + paths + "[[eventlist]]\n" + paths,
     ""},
    {"Patterns", "[events]\n'match pattern' = ['b', 'a']\n" + paths, "Added section 'events'\n",
     "events: w > t b a\n"},
    {"NoPattern", "[event]\n'match pattern' = 5\n" + paths + "[event.sub]\n" + paths,
     "Added section 'event'\n", "event: w > t\n"},
    {"NumberedArray", "[[event]]\n[[event]]\n" + paths,
     "table array\nWarning: Invalid section 'eventarrayitem0'\nEntry 'eventarrayitem0'\n",
     "eventarrayitem1: w > t\n"},
    {"NumberForPath", "[event]\n'watch path' = 5\n'target file' = 't'\n",
     "Invalid section 'event'\nEntry 'event'\n  Watch:      ''\n  Target:     't'\n"},
    {"BadPattern", "[event]\n'match pattern' = ['a', '(']\n" + paths,
     "  Match pattern:\n    Pattern:       'a'\n    Ready:         Yes \n  Match pattern:\n    "
     "Pattern:       '('\n    Ready:         No Unable to compile regex. Error="},
    {"TakenName", "[[event]]\n" + paths + "[eventarrayitem0]\n" + paths,
     "Warning: Duplicate section 'eventarrayitem0'\n", "eventarrayitem0: w > t\n"},
    {"SyntaxError", "[event]\n" + paths + "x =\n", "c.toml: TOML parse error: "},
    {"DeepestArray", "[event]\n" + paths + "x = " + times(4999, "[") + times(4999, "]"),
     "Added section 'event'\n", "event: w > t\n"},
    {"ManySections",
     times(300, "  [[event]]\n" + paths + "'match pattern' = ['[.]a', '[.]b', '[.]c', '[.]d']\n"),
     "Added section 'eventarrayitem299'\n", "?"},
    {"ArraysOverLines", "x = " + times(many, "[\n"), too_deep},
    {"SectionTooDeep", "[event" + times(many, ".x") + "]", too_deep},
    {"DeepBehindString", "x = \"\"\"\n[event]\n\"\"\"\n" + times(4, "[event]\n" + times(1500, "[")),
     too_deep},
    {"SectionWithinArray", times(3, "x = " + times(4000, "[") + "\n[event]\n"),
     "TOML parse error: Failed to parse value type"},
};

void check_load(const load_case &row) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, row.file);
    configuration.clear();
    const std::string lines = output_of([&] {
        EXPECT_EQ(try_load_configuration(), row.line.find("TOML parse error") == std::string::npos);
    });
    EXPECT_TRUE(has(lines, row.line));
    EXPECT_EQ(lines.empty(), row.line.empty());
    EXPECT_TRUE(row.entries == "?" || row.entries == entries()) << entries();
}

const struct pattern_case {
    const char *name, *pattern, *matching, *other;
} pattern_cases[] = {
    {"EmptyMatchesAll", "", ".hidden", nullptr},
    {"AnyLetterCase", "NEWS$", "the news", "the news.wav"},
    {"NotAnchored", "b.b", "aBcBa", "bb"},
    {"BytesNotCharacters", "^..$", "\xc3\xa4", "a\xc3\xa4"},
    {"UnknownEscapeIsItsLetter", "\\mxf$", "a.mxf", "a.xf"},
    {"BadOne", "(", nullptr, ""},
};

void check_pattern(const pattern_case &row) {
    const RegexState state(row.pattern), copy(state);
    EXPECT_TRUE(state.compiled != copy.compiled || !state.is_ready());
    EXPECT_EQ(copy.error, state.error);
    EXPECT_EQ(copy.is_ready(), row.matching != nullptr);
    if (row.matching != nullptr)
        EXPECT_TRUE(copy.error.empty() && state.matches(row.matching) &&
                    copy.matches(row.matching));
    else
        EXPECT_TRUE(has(copy.error, "Unable to compile regex. Error=") &&
                    has(copy.error, " at char 1"));
    EXPECT_FALSE(row.other != nullptr && copy.matches(row.other));
}

const bool registered = register_rows("Load", load_cases, check_load) &&
                        register_rows("Pattern", pattern_cases, check_pattern);

} // namespace

TEST(Load, ReadsWhatLeadsToARegularFile) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    const auto before = open_descriptors();
    mkfifo((tree / "fifo").c_str(), 0600); // with nobody who writes: an open would wait for ever
    write_file(tree / "file", "");
    const std::string lines = output_of([&] {
        EXPECT_FALSE(load_configuration());
        for (const char *name : {"fifo", "file"}) {
            fs::create_symlink(name, configuration_path);
            EXPECT_EQ(try_load_configuration(), name == std::string("file"));
            fs::remove(configuration_path);
        }
    });
    EXPECT_EQ(lines, configuration_path + ": No such file or directory\n" + configuration_path +
                         ": TOML parse error: not a regular file\n");
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Entry, ValidityAndPrint) {
    for (const WatchEntry &entry :
         {WatchEntry{"", "w", {}, "t"}, {"n", "", {}, "t"}, {"n", "w", {}, ""}})
        EXPECT_FALSE(entry.is_valid() || entry.matches("x"));
    const WatchEntry entry{"n", "w", {RegexState("x")}, "t"};
    EXPECT_TRUE(entry.is_valid());
    const std::string text = "Entry 'n'\n  Watch:      'w'\n  Target:     't'\n  Match pattern:\n  "
                             "  Pattern:       'x'\n    Ready:         Yes \n";
    EXPECT_EQ(output_of([&] { entry.print(nullptr); }), text);
    EXPECT_EQ(output_of([&] { entry.print(stdout); }, STDOUT_FILENO), text);
}

TEST(Discovery, EveryItemIsAnEntry) {
    const temporary_tree tree;
    const std::string root = tree.root;
    const std::string lines = output_of([&] {
        EXPECT_TRUE(build_directory_configuration(root).empty());
        fs::create_directory(tree / "Upload");
        EXPECT_TRUE(build_directory_configuration(root).empty());
        EXPECT_EQ(tree_of(root), (file_tree{{"Upload/", ""}})) << "nothing to play, nothing made";
        make_tree(root, {{"Upload/file", "x"}, {"Upload/.hidden/x", "x"}, {"Play", "in the way"}});
        EXPECT_EQ(build_directory_configuration(root).size(), 2U);
        fs::remove(tree / "Play");
        fs::remove(tree / "Upload/file");
        configuration = build_directory_configuration(root + "/");
    });
    EXPECT_EQ(entries(), "event0: " + root + "//Upload/.hidden > " + root + "//Play/.hidden \n");
    EXPECT_EQ(tree_of(root), (file_tree{{"Play/", ""}, {"Upload/.hidden/x", "x"}}));
    EXPECT_EQ(lines, "Warning: cannot list '" + root +
                         "/Upload/', No such file or directory\nWarning: cannot create '" + root +
                         "/Play/', File exists\n");
}
