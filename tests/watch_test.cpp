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

struct storage {
    storage() {
        main_path = fs::canonical(tree.root) / "main";
        fs::create_directories(tree / "main/watch");
        fs::create_directories(tree / "main/play");
        fs::create_directories(tree / "mainx");
        fs::create_directory_symlink(tree / "mainx", tree / "main/out");
    }
    temporary_tree tree;
};

} // namespace

TEST(FolderScan, ActsOnlyBelowTheMainStorage) {
    const storage disk;
    const std::string root = fs::canonical(disk.tree.root).string(), main = main_path;
    const std::string refused = "Path(s) do not validate\n";
    const struct {
        std::string watch, target, watch_real, target_real, end;
    } rows[] = {
        {main + "/watch", main + "/play/t", main + "/watch", main + "/play", ""},
        {main + "/out/../main/watch", main + "/watch/t", main + "/watch", main + "/watch", ""},
        {main, main + "/play/t", main, main + "/play", refused},
        {main + "/watch", main + "/t", main + "/watch", main, refused},
        {main + "/out", main + "/play/t", root + "/mainx", main + "/play", refused},
        {main + "/watch", root + "/mainx/t", main + "/watch", root + "/mainx", refused},
        {main + "/watch", main + "/gone/t", main + "/watch", "", "Not possible to check\n"},
        {main + "/watch", main + "/play/..", main + "/watch", "", "Not possible to check\n"},
    };
    for (const auto &row : rows) {
        const size_t before = open_descriptors();
        const captured_output lines;
        check_watch_folder(make_entry("e", row.watch, row.target, ""));
        EXPECT_EQ(lines.text(), "Checking 'e' in '" + row.watch + "'\n  if new entries replace '" +
                                    row.target + "'\nwatch realpath: " + row.watch_real +
                                    "\ntarget realpath: " + row.target_real + "\n" + row.end);
        EXPECT_EQ(open_descriptors(), before + 2) << "the two that capturing takes";
    }
    const captured_output lines;
    check_watch_folder(make_entry("e", main + "/gone", main + "/play/t", ""));
    EXPECT_EQ(lines.text(), "Checking 'e' in '" + main + "/gone'\n  if new entries replace '" +
                                main +
                                "/play/t'\n* cannot scan directory, "
                                "No such file or directory\n");
}

TEST(FolderScan, PicksOneRegularVisibleMatchingFile) {
    const storage disk;
    const fs::path watch = disk.tree / "main/watch";
    const WatchEntry entry = make_entry("e", watch, disk.tree / "main/play/t", "^[.a]");
    write_file(disk.tree / "outside", "x");
    write_file(watch / ".a", "hidden");
    write_file(watch / "b", "no match");
    fs::create_directory(watch / "a-directory");
    fs::create_symlink(disk.tree / "outside", watch / "a-link");
    mkfifo((watch / "a-fifo").c_str(), 0600);
    const captured_output lines;
    check_watch_folder(entry);
    EXPECT_EQ(tree_of(disk.tree / "main/play"), "");
    write_file(watch / "a1", "1");
    write_file(watch / "a2", "2");
    {
        const child_process writer([&] {
            for (const char *name : {"a1", "a2"})
                open((watch / name).c_str(), O_WRONLY | O_CLOEXEC);
        });
        const captured_output refusals;
        check_watch_folder(entry);
        const std::string text = refusals.text();
        EXPECT_EQ(text.find("is in use"), text.rfind("is in use")) << "the other one waits";
        EXPECT_NE(text.find("is in use"), std::string::npos);
    }
    check_watch_folder(entry);
    EXPECT_EQ(fs::exists(watch / "a1") + fs::exists(watch / "a2"), 1);
    check_watch_folder(entry);
    EXPECT_FALSE(fs::exists(watch / "a1") || fs::exists(watch / "a2"));
    EXPECT_EQ(fs::exists(disk.tree / "main/play/ARCHIVE/a1") +
                  fs::exists(disk.tree / "main/play/ARCHIVE/a2"),
              1);
}

TEST(WatchPass, VisitsEveryConsistentValidEntryInOrder) {
    main_path = "/main";
    configuration.clear();
    configuration["b"] = make_entry("b", "/gone", "/t", nullptr);
    configuration["A"] = make_entry("A", "/gone", "/t", "");
    configuration["a"] = make_entry("A", "/gone", "/t", "");
    configuration["c"] = make_entry("c", "/gone", "", "");
    configuration["d"] = make_entry("d", "/gone", "/t", "(");
    const auto scanned = [](const char *name) {
        return "Checking '" + std::string(name) +
               "' in '/gone'\n  if new entries replace '/t'\n"
               "* cannot scan directory, No such file or directory\n";
    };
    const captured_output lines;
    check_watch_entries();
    EXPECT_EQ(lines.text(), "Checking... (main='/main')\n" + scanned("A") +
                                "BUG: a forgot it's entry name\nEntry 'A'\n  Watch:      '/gone'\n"
                                "  Target:     '/t'\n  Match pattern:\n    Pattern:       ''\n"
                                "    Ready:         Yes \n" +
                                scanned("b"));
}

TEST(ProcfsFdRealpath, ResolvesAnOpenDirectory) {
    const storage disk;
    const unique_fd fd(open((disk.tree / "main/out").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    EXPECT_EQ(procfs_fd_realpath(fd.get()), fs::canonical(disk.tree / "mainx").string());
    EXPECT_EQ(procfs_fd_realpath(-1), "");
    EXPECT_EQ(procfs_fd_realpath(999), "");
}
