#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/rows.h"
#include "tests/support.h"
#include "watch/cpprealpath.h"
#include "watch/folder_scan.h"
#include "watch/watch_pass.h"

#include <sys/stat.h>

namespace {

WatchEntry make_entry(const std::string &name, const std::string &watch, const std::string &target,
                      const char *pattern) {
    WatchEntry entry{name, watch, {}, target};
    if (pattern != nullptr)
        entry.patterns.emplace_back(pattern);
    return entry;
}

std::string lines_of_scan(const WatchEntry &entry) {
    const captured_output lines;
    check_watch_folder(entry);
    return lines.text();
}

// The main storage is "main", in which "out" leads to "mainx" beside it. A file waits in each.
const struct scan_case {
    const char *name, *watch, *target;
    std::string lines; // after the two that every scan begins with, up to a delivery
} scan_cases[] = {
    {"BothBelow", "main/watch", "main/play/t",
     "watch realpath: main/watch\ntarget realpath: main/play\nChecking found file 'f'"},
    {"ByALinkIntoOneFolder", "main/out/../main/watch", "main/watch/t",
     "watch realpath: main/watch\ntarget realpath: main/watch\nChecking found file 'f'"},
    {"WatchIsTheStorage", "main", "main/play/t",
     "watch realpath: main\ntarget realpath: main/play\nPath(s) do not validate\n"},
    {"TargetInTheStorage", "main/watch", "main/t",
     "watch realpath: main/watch\ntarget realpath: main\nPath(s) do not validate\n"},
    {"WatchLeadsOutside", "main/out", "main/play/t",
     "watch realpath: mainx\ntarget realpath: main/play\nPath(s) do not validate\n"},
    {"TargetOutside", "main/watch", "mainx/t",
     "watch realpath: main/watch\ntarget realpath: mainx\nPath(s) do not validate\n"},
    {"NoTargetFolder", "main/watch", "main/gone/t",
     "watch realpath: main/watch\ntarget realpath: \nNot possible to check\n"},
    {"NoTargetName", "main/watch", "main/play/..",
     "watch realpath: main/watch\ntarget realpath: \nNot possible to check\n"},
    {"NoWatchFolder", "main/gone", "main/play/t",
     "* cannot scan directory, No such file or directory\n"},
};

void check_scan(const scan_case &row) {
    const temporary_tree tree;
    make_tree(tree.root, {{"main/watch/f", ""},
                          {"main/f", ""},
                          {"main/play/", ""},
                          {"main/out", "-> ../mainx"},
                          {"mainx/f", ""}});
    const std::string root = fs::canonical(tree.root).string() + "/";
    main_path = root + "main";
    const size_t open_before = open_descriptors();
    const std::string lines =
        lines_of_scan(make_entry("e", root + row.watch, root + row.target, ""));
    const std::string expected = std::string("Checking 'e' in '") + row.watch +
                                 "'\n  if new entries replace '" + row.target + "'\n" + row.lines;
    EXPECT_EQ(replaced(lines, root, "").substr(0, expected.size()), expected);
    EXPECT_EQ(lines.find("Checking found") == std::string::npos, fs::exists(tree / "main/watch/f"));
    EXPECT_EQ(open_descriptors(), open_before);
}

const bool scan_rows = register_rows("Scan", scan_cases, check_scan);

} // namespace

TEST(Scan, PicksOneRegularVisibleMatchingFile) {
    const temporary_tree tree;
    make_tree(tree.root, {{"main/play/", ""},
                          {"main/watch/.a", "hidden"},
                          {"main/watch/b", "no match"},
                          {"outside", "x"},
                          {"main/watch/a-folder/", ""},
                          {"main/watch/a-link", "-> ../../outside"}});
    main_path = fs::canonical(tree / "main");
    const fs::path watch = tree / "main/watch";
    mkfifo((watch / "a-fifo").c_str(), 0600);
    const std::string never_taken = tree_of(watch);
    write_file(watch / "a1", "1");
    write_file(watch / "a2", "2");
    const WatchEntry entry = make_entry("e", watch, tree / "main/play/t", "^[.a]");
    {
        const child_process writer([&] {
            for (const char *name : {"a1", "a2"})
                open((watch / name).c_str(), O_WRONLY | O_CLOEXEC);
        });
        const std::string lines = lines_of_scan(entry);
        EXPECT_NE(lines.find("is in use"), std::string::npos);
        EXPECT_EQ(lines.find("is in use"), lines.rfind("is in use")) << "the other one waits";
    }
    for (const int left : {1, 0, 0}) {
        lines_of_scan(entry);
        EXPECT_EQ(fs::exists(watch / "a1") + fs::exists(watch / "a2"), left);
    }
    EXPECT_EQ(tree_of(watch), never_taken);
    EXPECT_EQ(procfs_fd_realpath(999), "");
}

TEST(Pass, VisitsEveryConsistentValidEntryInOrder) {
    main_path = "/main";
    configuration.clear();
    configuration["b"] = make_entry("b", "/gone", "/t", nullptr);
    configuration["A"] = make_entry("A", "/gone", "/t", "");
    configuration["a"] = make_entry("A", "/gone", "/t", "");
    configuration["c"] = make_entry("c", "/gone", "", "");
    configuration["d"] = make_entry("d", "/gone", "/t", "(");
    const std::string scan = "' in '/gone'\n  if new entries replace '/t'\n"
                             "* cannot scan directory, No such file or directory\n";
    const captured_output lines;
    check_watch_entries();
    EXPECT_EQ(lines.text(), "Checking... (main='/main')\nChecking 'A" + scan +
                                "BUG: a forgot it's entry name\nEntry 'A'\n"
                                "  Watch:      '/gone'\n  Target:     '/t'\n  Match pattern:\n"
                                "    Pattern:       ''\n    Ready:         Yes \nChecking 'b" +
                                scan);
}
