// The check program: the finding for each mistake, and the announcement of a
// pass.
#include "check/check.h"
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

using std::string;

struct Row {
    const char *name;
    string text; // of the file; without one, there is no main storage either
    const char *line;
    CheckOptions options = {"", "f.toml"};
};

// What the check prints in a folder that is the main storage. The disk stays as
// it is.
string output_for(const Row &row) {
    make_tree(".", {{"f.toml", row.text},
                    {"Upload/n.mxf", "new"},
                    {"other/a.mxf", "1"},
                    {"other/ARCHIVE", "-> /"},
                    {"out/t", "old"},
                    {"out/.t.metadir/metadata", "original filename=was.mxf\n"},
                    {"Play", "-> nowhere"}});
    main_path = row.text.empty() ? "" : fs::current_path();
    configuration.clear();
    const FileTree before = tree_of(".");
    bool good = false;
    string output = output_of([&] { good = check(row.options); });
    EXPECT_EQ(tree_of("."), before);
    EXPECT_EQ(good, output.find("errors: 0") != string::npos) << output;
    return output;
}

// An entry with the folders of the working folder.
string entry(const char *name, const char *watch, const char *pattern, const char *target) {
    return string("[") + name + "]\n'watch path'='/proc/self/cwd/" + watch +
           "'\n'match pattern'='" + pattern + "'\n'target file'='/proc/self/cwd/" + target + "'\n";
}

const string good = entry("event1", "Upload", "[.]mxf$", "out/a");

const Row rows[] = {
    {"None", good, "Entries: 1, errors: 0, warnings: 0\n"},
    {"Blank", "'x'\xC2\xA0= 1", "line 1 ''x'<non-breaking space>= 1': type a plain blank"},
    {"ShellPattern", entry("event", "Upload", "news*.mxf", "out/a"), "'^news.*[.]mxf$' meant?"},
    {"TargetIsFolder", entry("event", "Upload", "m$", "out"), "/out' is a directory: write the"},
    {"Outside", entry("event", "Upload", "m$", "other/a"), "/ARCHIVE' is '/', not below the main"},
    {"SharedTarget", good + entry("event", "out", "m$", "out/a"), "target file of entry 'event'"},
    {"Play", "", "/Play' cannot be opened, No such", {"/proc/self/cwd", ""}},
    {"NoStorage", "", "Error: the main storage '/mnt/main' is not there"},
    {"LoadOnly", "", "errors: 1, warnings: 0\n", {"", "f.toml", true}},
};

const bool registered = register_rows("Mistake", rows, [](const Row &row) {
    const TemporaryTree tree;
    EXPECT_TRUE(has(output_for(row), row.line));
});

// The announcement of a pass, and what the pass then makes of it.
TEST(Check, DryRunSaysWhatThePassDoes) {
    const TemporaryTree tree;
    const string text = entry("event0", "other", "zzz", "other/a") +
                        entry("event1", "Upload", "n", "out/t") +
                        entry("event2", "other", "a", "out/t");
    const string output = output_for({"", text, "", {"", "f.toml", false, true}});
    EXPECT_TRUE(has(output, "'event0': nothing to deliver; 1 files that no pattern matches, such "
                            "as 'a.mxf'\nEntry 'event1': would deliver 'n.mxf', and archive 't' as "
                            "'was.mxf'\nEntry 'event2': depends on entry 'event1'\n"));
    output_of(check_watch_entries);
    EXPECT_EQ(read_file("out/ARCHIVE/was.mxf") + read_file("out/ARCHIVE/n.mxf"), "oldnew");
}
