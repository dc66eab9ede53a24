#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/cpprealpath.h"
#include "watch/folder_scan.h"
#include "watch/watch_pass.h"

#include <fcntl.h>
#include <gtest/gtest.h>
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

} // namespace

TEST(FolderScan, ActsOnlyBelowTheMainStorage) {
    const auto cases = read_cases(TEST_CASES "/folder_scans.txt", {});
    EXPECT_GE(cases.size(), 9U);
    for (auto row : cases) {
        const temporary_tree tree;
        make_tree(tree.root,
                  "main/watch/f=\nmain/f=\nmain/play/\nmain/out -> ../mainx\nmainx/f=\n");
        const std::string root = fs::canonical(tree.root);
        main_path = root + "/main";
        std::istringstream paths(row['>']);
        std::string watch;
        std::string target;
        paths >> watch >> target;
        const size_t open_before = open_descriptors();
        const std::string lines =
            lines_of_scan(make_entry("e", root + "/" + watch, root + "/" + target, ""));
        EXPECT_EQ(replaced(lines, root + "/", ""), row['|']) << row['#'];
        EXPECT_EQ(open_descriptors(), open_before);
    }
    EXPECT_EQ(procfs_fd_realpath(999), "");
}

TEST(FolderScan, PicksOneRegularVisibleMatchingFile) {
    const temporary_tree tree;
    make_tree(tree.root, "main/play/\nmain/watch/.a=hidden\nmain/watch/b=no match\noutside=x\n"
                         "main/watch/a-folder/\nmain/watch/a-link -> ../../outside\n");
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
}

TEST(WatchPass, VisitsEveryConsistentValidEntryInOrder) {
    main_path = "/main";
    configuration.clear();
    configuration["b"] = make_entry("b", "/gone", "/t", nullptr);
    configuration["A"] = make_entry("A", "/gone", "/t", "");
    configuration["a"] = make_entry("A", "/gone", "/t", "");
    configuration["c"] = make_entry("c", "/gone", "", "");
    configuration["d"] = make_entry("d", "/gone", "/t", "(");
    const captured_output lines;
    check_watch_entries();
    EXPECT_EQ(lines.text(), read_file(TEST_CASES "/watch_pass.txt"));
}
