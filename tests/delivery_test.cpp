#include "delivery/cppmetadir.h"
#include "delivery/deliver_file.h"
#include "platform/include/process_util.h"
#include "tests/support.h"

#include <gtest/gtest.h>
#include <optional>

// The clocks of the archive suffix stand still.
uint64_t monotonic_clock_us(void) {
    return 183020443512;
}
// Between the opening of ARCHIVE and the moves an empty folder goes away, and where there is a
// folder "other" it takes the place of the target's.
fs::path removed_at_capture, root_at_capture;
extern "C" time_t time(time_t *) noexcept {
    rmdir(removed_at_capture.c_str());
    renameat2(AT_FDCWD, (root_at_capture / "other").c_str(), AT_FDCWD,
              (root_at_capture / "play").c_str(), RENAME_EXCHANGE);
    return 1706715902;
}

namespace {

constexpr char suffix[] = " [ARCHIVE 20240131154502.183020443512]";
constexpr char archived[] = "Existing file moved into ARCHIVE directory.\n";

std::string with_newlines(const std::string &text) {
    return replaced(text, "\2", "\n");
}

// Delivers watch/name, and returns the lines with the path of the tree that holds watch taken out.
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
        EXPECT_EQ(target.get()->flags, 0);
    }
    EXPECT_EQ(open_descriptors(), before);
    return replaced(printed, watch.parent_path().string() + "/", "");
}

} // namespace

TEST(DeliverFile, ActsOnEachItemAsItsCaseSays) {
    const temporary_tree sockets;
    const unique_fd server = bound_socket(sockets / "served", SOCK_DGRAM);
    bound_socket(sockets / "dead", SOCK_DGRAM);
    make_tree(sockets.root, "file=\nhop -> served\n");
    // A doubled backslash goes by way of a byte that no case uses.
    const auto cases = read_cases(TEST_CASES "/deliveries.txt", {{"\\\\", "\1"},
                                                                 {"\\n", "\2"},
                                                                 {"\\xff", "\xff"},
                                                                 {"\1", "\\"},
                                                                 {"@S", suffix},
                                                                 {"@L", std::string(250, 'o')},
                                                                 {"@/", std::string(600, '/')},
                                                                 {"@sockets", sockets.root}});
    EXPECT_GE(cases.size(), 23U);
    for (auto row : cases) {
        const temporary_tree tree;
        make_tree(tree.root, "play/\n" + row['+']);
        std::optional<child_process> writer;
        if (const std::string held = line_of(row, '*'); !held.empty())
            writer.emplace([&] { open((tree / held).c_str(), O_WRONLY | O_CLOEXEC); });
        root_at_capture = tree.root;
        if (row.count('-') != 0)
            removed_at_capture = tree / "play/ARCHIVE";
        const std::string what = with_newlines(row['>']);
        const size_t blank = what.rfind(' ');
        const std::string target = what.substr(blank + 1, what.size() - blank - 2);
        EXPECT_EQ(deliver(tree / "watch", tree / "play" / target, what.substr(0, blank)),
                  with_newlines(row['|']))
            << row['#'];
        removed_at_capture.clear();
        EXPECT_EQ(tree_of(tree.root), with_newlines(row['='])) << row['#'];
    }
}

TEST(ItemContext, NothingIsDoneWithoutALocation) {
    ItemContext item;
    EXPECT_FALSE(item.open_directory() || item.open_metadata_dir() || item.open_file_handles());
    const captured_output lines;
    deliver_file(nullptr, "n", item, WatchEntry());
    EXPECT_EQ(lines.text(), "");
}

TEST(DeliverFile, DoesNotCopyAcrossFileSystems) {
    const temporary_tree tree("/dev/shm");
    const temporary_tree other;
    make_tree(tree.root, "play/t=old\n");
    make_tree(other.root, "watch/n=new\n");
    if (rename((other / "watch").c_str(), (tree / "watch").c_str()) == 0)
        GTEST_SKIP() << "/dev/shm and the temporary directory are one file system";
    const std::string lines = deliver(other / "watch", tree / "play/t", "n");
    EXPECT_EQ(lines.substr(lines.find(archived)),
              std::string(archived) +
                  "Cannot move NEW file into directory, Invalid cross-device link\n"
                  "Cannot move NEW file metadata into directory, Invalid cross-device link\n");
    EXPECT_EQ(tree_of(other.root), "watch/n=new\n");
    EXPECT_EQ(tree_of(tree.root), std::string("play/ARCHIVE/t") + suffix + "=old\n");
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
