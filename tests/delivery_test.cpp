#include "delivery/cppmetadir.h"
#include "delivery/deliver_file.h"
#include "delivery/in_use.h"
#include "platform/process_util.h"
#include "tests/support.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <utility>

// The clocks of the archive suffix stand still.
uint64_t monotonic_clock_us(void) {
    return 183020443512;
}
fs::path removed_at_capture; // an empty folder that goes away between the opening of ARCHIVE and
                             // the moves
extern "C" time_t time(time_t *) noexcept {
    rmdir(removed_at_capture.c_str());
    return 1706715902;
}

namespace {

constexpr char suffix[] = " [ARCHIVE 20240131154502.183020443512]";

// Delivers tree/watch/name to tree/play/target_name, and returns the lines with the tree's path
// taken out.
std::string deliver(const fs::path &watch, const fs::path &target_file, const std::string &name) {
    setenv("TZ", "UTC", 1);
    WatchEntry entry;
    entry.watch_path = watch;
    entry.target_file = target_file;
    const size_t before = open_descriptors();
    std::string printed;
    {
        const unique_dir stream(opendir(watch.c_str()));
        ItemContext target;
        EXPECT_TRUE(target.set_file_location(target_file) && target.open_directory());
        const captured_output lines;
        deliver_file(stream.get(), name.c_str(), target, entry);
        printed = lines.text();
    }
    EXPECT_EQ(open_descriptors(), before);
    return replaced(printed, watch.parent_path().string() + "/", "");
}

constexpr char archived[] = "Existing file moved into ARCHIVE directory.\n";

} // namespace

TEST(DeliverFile, MovesArchivesAndRecords) {
    // A doubled backslash goes by way of a byte that no case uses.
    const auto cases = read_cases(TEST_CASES "/deliveries.txt", {{"\\\\", "\1"},
                                                                 {"\\n", "\2"},
                                                                 {"\\xff", "\xff"},
                                                                 {"\1", "\\"},
                                                                 {"@S", suffix},
                                                                 {"@L", std::string(250, 'o')}});
    EXPECT_GE(cases.size(), 12U);
    for (auto row : cases) {
        const temporary_tree tree;
        fs::create_directories(tree / "play");
        std::istringstream files(row['+']);
        for (std::string line; std::getline(files, line);)
            write_file(tree / replaced(line.substr(0, line.find('=')), "\2", "\n"),
                       replaced(line.substr(line.find('=') + 1), "\2", "\n"));
        const std::string what = replaced(row['>'], "\2", "\n");
        const size_t blank = what.rfind(' ');
        EXPECT_EQ(deliver(tree / "watch",
                          tree / "play" / what.substr(blank + 1, what.size() - blank - 2),
                          what.substr(0, blank)),
                  replaced(row['|'], "\2", "\n"))
            << row['#'];
        EXPECT_EQ(tree_of(tree.root), replaced(row['='], "\2", "\n")) << row['#'];
    }
}

TEST(DeliverFile, RefusesAFileInUse) {
    const temporary_tree tree;
    write_file(tree / "play/t", "old");
    write_file(tree / "watch/n", "new");
    const std::string before = tree_of(tree.root);
    const std::pair<const char *, const char *> rows[] = {
        {"play/t", "File 'play/t' is in use, not acting\n"},
        {"watch/n", "File source 'watch/n' is in use, not acting\n"}};
    for (const auto &[held, line] : rows) {
        const child_process holder(
            [&, path = tree / held] { open(path.c_str(), O_WRONLY | O_CLOEXEC); });
        EXPECT_EQ(deliver(tree / "watch", tree / "play/t", "n"), line);
        EXPECT_EQ(tree_of(tree.root), before);
    }
}

TEST(DeliverFile, ReplacesNothingThatCouldNotBeArchived) {
    const temporary_tree tree;
    write_file(tree / "play/t", "old");
    write_file(tree / "watch/n", "new");
    removed_at_capture = tree / "play/ARCHIVE";
    const std::string lines = deliver(tree / "watch", tree / "play/t", "n");
    removed_at_capture.clear();
    EXPECT_NE(lines.find("Cannot move ARCHIVE file into directory, No such file or directory\n"),
              std::string::npos);
    EXPECT_EQ(tree_of(tree.root), "play/t=old\nwatch/n=new\n");
}

TEST(DeliverFile, DoesNotCopyAcrossFileSystems) {
    const temporary_tree tree("/dev/shm"), other;
    write_file(tree / "play/t", "old");
    write_file(other / "watch/n", "new");
    struct stat here {
    }, there{};
    stat((tree / "play").c_str(), &here);
    stat((other / "watch").c_str(), &there);
    if (here.st_dev == there.st_dev)
        GTEST_SKIP() << "/dev/shm and the temporary directory are one file system";
    const std::string lines = deliver(other / "watch", tree / "play/t", "n");
    EXPECT_EQ(lines.substr(lines.find(archived)),
              std::string(archived) +
                  "Cannot move NEW file into directory, Invalid cross-device link\n"
                  "Cannot move NEW file metadata into directory, Invalid cross-device link\n");
    EXPECT_EQ(tree_of(other.root), "watch/n=new\n");
    EXPECT_EQ(tree_of(tree.root), std::string("play/ARCHIVE/t") + suffix + "=old\n");
}

TEST(ItemRunning, OnlyARegularFileOrALinkToAServedSocketCounts) {
    const temporary_tree tree;
    write_file(tree / "t", "");
    const fs::path marker = tree / ".t.metadir/.media.item.active.socket";
    fs::create_directory(marker.parent_path());
    const std::string live = tree / "live", dead = tree / "dead";
    const auto serve = [](const std::string &path) {
        sockaddr_un address{AF_UNIX, ""};
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(fd.get(), 1), 0);
        return fd.release();
    };
    close(serve(dead));
    const child_process server([&] { serve(live); });
    fs::create_symlink(live, tree / "hop");
    const std::pair<std::string, bool> links[] = {
        {live, true},        {dead, false},          {tree / "hop", false},
        {tree / "t", false}, {tree / "gone", false}, {std::string(600, '/') + live, false}};
    const auto is_running = [&] {
        ItemContext item;
        return item.set_file_location(tree / "t") && item.open_directory() &&
               item.open_metadata_dir() && is_item_running(item);
    };
    EXPECT_FALSE(is_running()) << "no marker";
    for (const auto &[text, expected] : links) {
        fs::create_symlink(text, marker);
        EXPECT_EQ(is_running(), expected) << text;
        fs::remove(marker);
    }
    close(serve(marker));
    EXPECT_FALSE(is_running()) << "a socket of its own";
    fs::remove(marker);
    write_file(marker, "");
    EXPECT_TRUE(is_running());
    fs::rename(marker.parent_path(), tree / "elsewhere");
    fs::create_directory_symlink(tree / "elsewhere", marker.parent_path());
    EXPECT_FALSE(is_running()) << "a planted metadata directory";
}

TEST(Cppmetadir, BoundsAndAssertions) {
    const std::string directory(4090, '/');
    EXPECT_EQ(file_to_metadir(directory + "a.mxfx"), directory + ".a.mxfx.metadir");
    EXPECT_EQ(file_to_metadir(directory + "a.mxf--"), "") << "4097 bytes";
    EXPECT_EQ(metadir_to_file(".a.metadir"), "a");
    EXPECT_TRUE(is_metadata_dir_name(".a.metadir"));
    EXPECT_DEATH(file_to_metadir(static_cast<const char *>(nullptr)),
                 "std::string file_to_metadir\\(const char ?\\*\\): Assertion `path != NULL'");
}
