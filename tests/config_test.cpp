#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "tests/rows.h"
#include "tests/support.h"

#include <sys/stat.h>

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
    bool loads;
    std::string line;    // one that the loader prints
    std::string entries; // what the registry has then
} load_cases[] = {
    {"Empty", "", true, "", ""},
    {"OnePattern", "[event]\nx = 1\n'match pattern' = 'a$'\n" + paths, true,
     "Added section 'event'\n", "event: w > t a$\n"},
    {"PatternsInOrder", "[events]\n'match pattern' = ['b', 'a', 'c']\n" + paths, true,
     "Added section 'events'\n", "events: w > t b a c\n"},
    {"NoPattern", "[event]\n'match pattern' = 5\n" + paths + "[event.sub]\n" + paths, true,
     "Added section 'event'\n", "event: w > t\n"},
    {"NumberedArray", "[[event]]\n[[event]]\n" + paths, true,
     "table array\nWarning: Invalid section 'eventarrayitem0'\nEntry 'eventarrayitem0'\n",
     "eventarrayitem1: w > t\n"},
    {"OtherNames", "[Event1]\n" + paths + "[my_event]\n" + paths + "[[eventlist]]\n" + paths, true,
     "", ""},
    {"NumberForPath", "[event]\n'watch path' = 5\n'target file' = 't'\n", true,
     "Warning: Invalid section 'event'\nEntry 'event'\n  Watch:      ''\n  Target:     't'\n", ""},
    {"ArrayForTarget", "[event]\n'watch path' = 'w'\n'target file' = ['t']\n", true,
     "Warning: Invalid section 'event'\n", ""},
    {"BadPattern", "[event]\n'match pattern' = ['a', '(']\n" + paths, true,
     "  Match pattern:\n    Pattern:       'a'\n    Ready:         Yes \n"
     "  Match pattern:\n    Pattern:       '('\n    Ready:         No Unable to compile regex. "
     "Error=",
     ""},
    {"TakenName", "[[event]]\n" + paths + "[eventarrayitem0]\n" + paths, true,
     "Warning: Duplicate section 'eventarrayitem0'\n", "eventarrayitem0: w > t\n"},
    {"SyntaxError", "[event]\n" + paths + "x =\n", false, "TOML parse error: ", ""},
    {"ManyPatterns",
     "[event]\n'match pattern' = [" + times(1500, "'[.](mxf|mov)$',\n") + "]\n" + paths, true,
     "Added section 'event'\n", "event: w > t" + times(1500, " [.](mxf|mov)$") + "\n"},
    {"ManyEntries", times(3000, "[[event]]\n" + paths + "'match pattern' = ['[.]a', '[.]b']\n"),
     true, "Added section 'eventarrayitem2999'\n", "?"},
    {"DeepestArray", "[event]\n" + paths + "x = " + times(4999, "[") + times(4999, "]"), true,
     "Added section 'event'\n", "event: w > t\n"},
    {"ArraysTooDeep", "[event]\nx = " + times(5000, "["), false, too_deep, ""},
    {"ArraysOverLines", "x = " + times(many, "[\n"), false, too_deep, ""},
    {"TablesTooDeep", "x = " + times(many, "{x = "), false, too_deep, ""},
    {"KeyTooDeep", "x" + times(many, ".x") + " = 1", false, too_deep, ""},
    {"SectionTooDeep", "[event" + times(many, ".x") + "]", false, too_deep, ""},
    {"DeepBehindQuote", "x = [1 '#'''\n" + times(4, "[event]\ny = " + times(1500, "[") + "\n"),
     false, too_deep, ""},
    {"NumbersForPatterns", "[event]\n'match pattern' = [1, 2]\n" + paths, true,
     "Added section 'event'\n", "event: w > t\n"},
    {"DeepBehindString", "x = \"\"\"\n[event]\n\"\"\"\n" + times(4, "[event]\n" + times(1500, "[")),
     false, too_deep, ""},
    {"SectionWithinArray", times(3, "x = " + times(4000, "[") + "\n[event]\n"), false,
     "TOML parse error: Failed to parse value type", ""},
};

void check_load(const load_case &row) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, row.file);
    configuration.clear();
    const captured_output lines;
    EXPECT_EQ(try_load_configuration(), row.loads);
    EXPECT_NE(lines.text().find(row.line), std::string::npos) << lines.text();
    EXPECT_EQ(lines.text().empty(), row.line.empty());
    EXPECT_EQ(row.entries == "?" ? "?" : entries(), row.entries);
}

const bool load_rows = register_rows("Load", load_cases, check_load);

const struct pattern_case {
    const char *name, *pattern, *matching, *other;
} pattern_cases[] = {
    {"EmptyMatchesAll", "", ".hidden", nullptr},
    {"AnyLetterCase", "NEWS$", "the news", "the news.wav"},
    {"NotAnchored", "b.b", "aBcBa", "bb"},
    {"BytesNotCharacters", "^..$", "\xc3\xa4", "a\xc3\xa4"},
    {"UnknownEscapeIsItsLetter", "\\mxf$", "a.mxf", "a.xf"},
};

void check_pattern(const pattern_case &row) {
    const std::vector<RegexState> copies(2, RegexState(row.pattern));
    for (const RegexState &state : copies) {
        EXPECT_TRUE(state.is_ready() && state.error.empty());
        EXPECT_TRUE(state.matches(row.matching));
        EXPECT_FALSE(row.other != nullptr && state.matches(row.other));
    }
    EXPECT_NE(copies[0].compiled, copies[1].compiled);
}

const bool pattern_rows = register_rows("Pattern", pattern_cases, check_pattern);

} // namespace

TEST(Pattern, CopyOfABadOneIsBadToo) {
    const RegexState bad("(");
    const RegexState copy(bad);
    EXPECT_FALSE(bad.is_ready() || copy.is_ready() || copy.matches(""));
    EXPECT_EQ(copy.error, bad.error);
    EXPECT_EQ(bad.error.rfind("Unable to compile regex. Error=", 0), 0U);
    EXPECT_NE(bad.error.find(" at char 1"), std::string::npos);
}

TEST(Entry, ValidityAndPrint) {
    WatchEntry entry{"n", "w", {}, "t"};
    EXPECT_TRUE(entry.is_valid());
    EXPECT_FALSE(entry.matches("x"));
    for (std::string *text : {&entry.name, &entry.watch_path, &entry.target_file}) {
        const std::string kept = std::exchange(*text, "");
        EXPECT_FALSE(entry.is_valid());
        *text = kept;
    }
    entry.patterns.emplace_back("x");
    const captured_output lines;
    char text[200] = "";
    const unique_file stream(fmemopen(text, sizeof(text), "w"));
    entry.print(stream.get());
    fflush(stream.get());
    EXPECT_EQ(lines.text(), "");
    entry.print(nullptr);
    EXPECT_EQ(lines.text(), text);
    EXPECT_STREQ(text, "Entry 'n'\n  Watch:      'w'\n  Target:     't'\n  Match pattern:\n"
                       "    Pattern:       'x'\n    Ready:         Yes \n");
}

TEST(Load, ReadsWhatLeadsToARegularFile) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    const captured_output lines;
    const size_t before = open_descriptors();
    EXPECT_FALSE(load_configuration());
    mkfifo((tree / "fifo").c_str(), 0600); // with nobody who writes: an open would wait for ever
    fs::create_symlink("fifo", configuration_path);
    EXPECT_FALSE(load_configuration());
    fs::remove(configuration_path);
    write_file(tree / "file", "");
    fs::create_symlink("file", configuration_path);
    EXPECT_TRUE(load_configuration());
    EXPECT_EQ(lines.text(), configuration_path + ": No such file or directory\n" +
                                configuration_path + ": TOML parse error: not a regular file\n");
    EXPECT_EQ(open_descriptors(), before);
}

TEST(Discovery, EveryItemIsAnEntry) {
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
    EXPECT_EQ(entries(), "event0: " + root + "//Upload/.hidden > " + root + "//Play/.hidden \n");
    EXPECT_EQ(tree_of(root), "Play/\nUpload/.hidden/x=x\n");
    EXPECT_EQ(lines.text(), "Warning: cannot list '" + root +
                                "/Upload/', No such file or directory\n" +
                                "Warning: cannot create '" + root + "/Play/', File exists\n");
}
