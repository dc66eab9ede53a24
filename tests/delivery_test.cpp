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
extern "C" time_t time(time_t *) noexcept {
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
    std::string printed;
    const size_t before = open_descriptors();
    {
        const unique_dir stream(opendir(watch.c_str()));
        ItemContext target;
        EXPECT_TRUE(target.set_file_location(target_file) && target.open_directory());
        const captured_output lines;
        deliver_file(stream.get(), name.c_str(), target, entry);
        printed = lines.text();
    }
    EXPECT_EQ(open_descriptors(), before);
    const std::string root = watch.parent_path().string() + "/";
    for (size_t at = 0; (at = printed.find(root)) != std::string::npos;)
        printed.erase(at, root.size());
    return printed;
}

std::string found(const std::string &name, const std::string &target) {
    return "Checking found file '" + name + "' to replace 'play/" + target + "'\n";
}

constexpr char no_metadata[] = "Target meta load fail from old file\nOriginal filename: ''\n";
constexpr char archived[] = "Existing file moved into ARCHIVE directory.\n";

} // namespace

TEST(DeliverFile, MovesArchivesAndRecords) {
    const std::string longest(250, 'o'), odd = "a b\n%s\xff\\=";
    const std::string key = "original filename=";
    const struct {
        const char *why;
        std::vector<std::pair<std::string, std::string>> files;
        std::string name, target, lines, tree;
    } rows[] = {
        {"a first delivery",
         {{"watch/n", "new"}},
         "n",
         "t",
         found("n", "t") + no_metadata + archived + "already=0\n",
         "play/\nplay/.t.metadir/\nplay/.t.metadir/metadata=" + key +
             "n\n\nplay/ARCHIVE/\nplay/t=new\nwatch/\n"},
        {"a replacement under the recorded name, metadata both ways",
         {{"play/t", "old"},
          {"play/.t.metadir/metadata", key + "m\n"},
          {"play/.t.metadir/x", "1"},
          {"watch/n", "new"},
          {"watch/.n.metadir/metadata", "a=b\n" + key + "z\n"}},
         "n",
         "t",
         found("n", "t") + "metadata 'original filename'='m'\nOriginal filename: 'm'\n" + archived +
             "metadata 'a'='b'\nmetadata 'original filename'='z'\nalready=1\n",
         "play/\nplay/.t.metadir/\nplay/.t.metadir/metadata=a=b\n" + key +
             "n\n\nplay/ARCHIVE/\nplay/ARCHIVE/.m.metadir/\nplay/ARCHIVE/.m.metadir/metadata=" +
             key + "m\n\nplay/ARCHIVE/.m.metadir/x=1\nplay/ARCHIVE/m=old\nplay/t=new\nwatch/\n"},
        {"the recorded name is taken, the last of two counts",
         {{"play/t", "old"},
          {"play/.t.metadir/metadata", key + "x\n" + key + "m\n"},
          {"play/ARCHIVE/m", "older"},
          {"watch/n", "new"}},
         "n",
         "t",
         found("n", "t") + "metadata 'original filename'='x'\nmetadata 'original filename'='m'\n" +
             "Original filename: 'm'\n" + archived + "already=0\n",
         "play/\nplay/.t.metadir/\nplay/.t.metadir/metadata=" + key + "n\n\nplay/ARCHIVE/\n" +
             "play/ARCHIVE/.m" + suffix + ".metadir/\nplay/ARCHIVE/.m" + suffix +
             ".metadir/metadata=" + key + "x\n" + key + "m\n\nplay/ARCHIVE/m" + suffix +
             "=old\nplay/ARCHIVE/m=older\nplay/t=new\nwatch/\n"},
        {"a slash in the recorded name; a name of any bytes",
         {{"play/t", "old"}, {"play/.t.metadir/metadata", key + "../m\n"}, {"watch/" + odd, "new"}},
         odd,
         "t",
         found(odd, "t") + "metadata 'original filename'='../m'\nForward slash in original name, " +
             "rejecting.\nOriginal filename: ''\n" + archived + "already=0\n",
         "play/\nplay/.t.metadir/\nplay/.t.metadir/metadata=" + key +
             "a b\\n%s\xff\\\\=\n\nplay/ARCHIVE/\nplay/ARCHIVE/.t" + suffix +
             ".metadir/\nplay/ARCHIVE/.t" + suffix + ".metadir/metadata=" + key +
             "../m\n\nplay/ARCHIVE/t" + suffix + "=old\nplay/t=new\nwatch/\n"},
        {"no recorded name, and the recorded name that is a directory",
         {{"play/t", "old"}, {"play/.t.metadir/metadata", key + "..\n"}, {"watch/n", "new"}},
         "n",
         "t",
         found("n", "t") + "metadata 'original filename'='..'\nOriginal filename: '..'\n" +
             archived + "already=0\n",
         "play/\nplay/.t.metadir/\nplay/.t.metadir/metadata=" + key + "n\n\nplay/ARCHIVE/\n" +
             "play/ARCHIVE/.. " + (suffix + 1) + "=old\nplay/ARCHIVE/... " + (suffix + 1) +
             ".metadir/\nplay/ARCHIVE/... " + (suffix + 1) + ".metadir/metadata=" + key +
             "..\n\nplay/t=new\nwatch/\n"},
        {"ARCHIVE is no directory",
         {{"play/ARCHIVE", "x"}, {"play/t", "old"}, {"watch/n", "new"}},
         "n",
         "t",
         found("n", "t") + "Cannot access ARCHIVE directory, Not a directory\n",
         "play/\nplay/ARCHIVE=x\nplay/t=old\nwatch/\nwatch/n=new\n"},
        {"metadata that cannot be archived keeps the new file back",
         {{"play/t", "old"},
          {"play/.t.metadir/metadata", key + "m\n"},
          {"play/ARCHIVE/.m.metadir/x", "1"},
          {"watch/n", "new"}},
         "n",
         "t",
         found("n", "t") + "metadata 'original filename'='m'\nOriginal filename: 'm'\n" +
             "Cannot move ARCHIVE file metadata into directory, Directory not empty\n" + archived,
         "play/\nplay/.t.metadir/\nplay/.t.metadir/metadata=" + key + "m\n\nplay/ARCHIVE/\n" +
             "play/ARCHIVE/.m.metadir/\nplay/ARCHIVE/.m.metadir/x=1\nplay/ARCHIVE/m=old\n" +
             "watch/\nwatch/n=new\n"},
        {"an archive name too long for a metadata directory",
         {{"play/t", "old"},
          {"play/.t.metadir/metadata", key + longest},
          {"watch/n", "new"},
          {"watch/.n.metadir/y", "2"}},
         "n",
         "t",
         found("n", "t") + "metadata 'original filename'='" + longest + "'\nOriginal filename: '" +
             longest + "'\n" + archived +
             "Cannot move NEW file metadata into directory, Directory not empty\n" +
             "metadata 'original filename'='" + longest + "'\nalready=1\n",
         "play/\nplay/.t.metadir/\nplay/.t.metadir/metadata=" + key + "n\n\nplay/ARCHIVE/\n" +
             "play/ARCHIVE/" + longest + "=old\nplay/t=new\nwatch/\nwatch/.n.metadir/\n" +
             "watch/.n.metadir/y=2\n"},
        {"a name too long for an archive suffix",
         {{"play/" + longest, "old"}, {"watch/n", "new"}},
         "n",
         longest,
         found("n", longest) + no_metadata +
             "Cannot move ARCHIVE file into directory, File name too long\n" + archived,
         "play/\nplay/ARCHIVE/\nplay/" + longest + "=old\nwatch/\nwatch/n=new\n"},
        {"the new file has vanished",
         {{"play/t", "old"}, {"watch/other", "new"}},
         "n",
         "t",
         found("n", "t") + no_metadata + archived +
             "Metadir fail\nTarget meta load fail\nalready=0\nTarget meta save fail\n",
         "play/\nplay/ARCHIVE/\nplay/ARCHIVE/t" + std::string(suffix) +
             "=old\nwatch/\nwatch/other=new\n"},
        {"the item in place is running",
         {{"play/t", "old"}, {"play/.t.metadir/.media.item.active.socket", ""}, {"watch/n", "new"}},
         "n",
         "t",
         "File 'play/t' is running, not acting\n",
         "play/\nplay/.t.metadir/\nplay/.t.metadir/.media.item.active.socket=\nplay/t=old\n"
         "watch/\nwatch/n=new\n"},
    };
    for (const auto &row : rows) {
        const temporary_tree tree;
        fs::create_directories(tree / "play");
        for (const auto &[path, content] : row.files)
            write_file(tree / path, content);
        EXPECT_EQ(deliver(tree / "watch", tree / "play/" / row.target, row.name), row.lines)
            << row.why;
        EXPECT_EQ(tree_of(tree.root), row.tree) << row.why;
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
    EXPECT_EQ(tree_of(other.root), "watch/\nwatch/n=new\n");
    EXPECT_EQ(tree_of(tree.root),
              std::string("play/\nplay/ARCHIVE/\nplay/ARCHIVE/t") + suffix + "=old\n");
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
