// Deliveries of watch/n to play/t: what is there before, a line that decides, what is there after.
#include "delivery/cppmetadir.h"
#include "delivery/deliver_file.h"
#include "platform/include/process_util.h"
#include "tests/rows.h"
#include "tests/support.h"

#include <optional>

// The clocks of the archive suffix stand still.
uint64_t monotonic_clock_us(void) {
    return 183020443512;
}
// Between the opening of ARCHIVE and the moves an empty folder goes away, and where there is a
// folder "other" it takes the place of the target's.
static fs::path removed_at_capture, root_at_capture;
extern "C" time_t time(time_t *) noexcept {
    rmdir(removed_at_capture.c_str());
    renameat2(AT_FDCWD, (root_at_capture / "other").c_str(), AT_FDCWD,
              (root_at_capture / "play").c_str(), RENAME_EXCHANGE);
    return 1706715902;
}

namespace {

const std::string suffix = " [ARCHIVE 20240131154502.183020443512]";
const std::string moved = "Existing file moved into ARCHIVE directory.\n";
const std::string meta = "play/.t.metadir/metadata";
const std::string marker = "play/.t.metadir/.media.item.active.socket";
const file_tree old_and_new = {{"play/t", "old"}, {"watch/n", "new"}};
const std::string long_name(250, 'o');

// What the metadata of an item says that was delivered under this name.
std::string named(const std::string &name) {
    return "original filename=" + name + "\n";
}

// Delivers watch/NAME, and returns the lines with the path of the tree that holds watch taken out.
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

const struct delivery_case {
    const char *name;
    file_tree before;
    std::string line;
    file_tree after;
    std::string held = {}; // a file that somebody writes to
    std::string target = "t";
} delivery_cases[] = {
    {"SlashInRecordedName",
     {{"play/t", "old"}, {meta, named("../m")}, {"watch/n", "new"}},
     "Forward slash in original name, rejecting.\nOriginal filename: ''\n",
     {{meta, named("n")},
      {"play/ARCHIVE/.t" + suffix + ".metadir/metadata", named("../m")},
      {"play/ARCHIVE/t" + suffix, "old"},
      {"play/t", "new"},
      {"watch/", ""}}},
    {"EmptyRecordedName",
     {{"play/t", "old"}, {meta, named("x") + named("")}, {"watch/n", "new"}},
     "Original filename: ''\n" + moved,
     {{meta, named("n")},
      {"play/ARCHIVE/.t" + suffix + ".metadir/metadata", named("x") + named("")},
      {"play/ARCHIVE/t" + suffix, "old"},
      {"play/t", "new"},
      {"watch/", ""}}},
    {"RecordedNameIsTaken",
     {{"play/t", "old"},
      {meta, named("x") + named("m")},
      {"play/ARCHIVE/m", "older"},
      {"watch/n", "new"}},
     "Original filename: 'm'\n" + moved,
     {{meta, named("n")},
      {"play/ARCHIVE/.m" + suffix + ".metadir/metadata", named("x") + named("m")},
      {"play/ARCHIVE/m" + suffix, "old"},
      {"play/ARCHIVE/m", "older"},
      {"play/t", "new"},
      {"watch/", ""}}},
    {"RecordedNameIsADirectoryEverywhere",
     {{"play/t", "old"}, {meta, named("..")}, {"watch/n", "new"}},
     moved,
     {{meta, named("n")},
      {"play/ARCHIVE/.." + suffix, "old"},
      {"play/ARCHIVE/..." + suffix + ".metadir/metadata", named("..")},
      {"play/t", "new"},
      {"watch/", ""}}},
    {"ArchiveIsNoDirectory",
     {{"play/ARCHIVE", "x"}, {"play/t", "old"}, {"watch/n", "new"}},
     "Cannot access ARCHIVE directory, Not a directory\n",
     {{"play/ARCHIVE", "x"}, {"play/t", "old"}, {"watch/n", "new"}}},
    {"ArchivedMetadataInTheWay",
     {{"play/t", "old"},
      {meta, named("m")},
      {"play/ARCHIVE/.m.metadir/x", "1"},
      {"watch/n", "new"}},
     "Cannot move ARCHIVE file metadata into directory, Directory not empty\n" + moved,
     {{meta, named("m")},
      {"play/ARCHIVE/.m.metadir/x", "1"},
      {"play/ARCHIVE/m", "old"},
      {"watch/n", "new"}}},
    {"ArchiveNameWithoutMetadataName",
     {{"play/t", "old"}, {meta, named(long_name)}, {"watch/n", "new"}, {"watch/.n.metadir/y", "2"}},
     moved + "Cannot move NEW file metadata into directory, Directory not empty\n",
     {{meta, named("n")},
      {"play/ARCHIVE/" + long_name, "old"},
      {"play/t", "new"},
      {"watch/.n.metadir/y", "2"}}},
    {"NoRoomForTheSuffix",
     {{"play/" + long_name, "old"}, {"watch/n", "new"}},
     "Cannot move ARCHIVE file into directory, File name too long\n" + moved,
     {{"play/ARCHIVE/", ""}, {"play/" + long_name, "old"}, {"watch/n", "new"}},
     "",
     long_name},
    {"TargetNameThatCannotBe",
     {{"play/", ""}, {"watch/n", "new"}},
     "Cannot move ARCHIVE file into directory, File name too long\n" + moved,
     {{"play/ARCHIVE/", ""}, {"watch/n", "new"}},
     "",
     std::string(256, 'o')},
    {"NewFileHasVanished",
     {{"play/t", "old"}, {"watch/other", "new"}},
     moved + "Metadir fail\nTarget meta load fail\nalready=0\nTarget meta save fail\n",
     {{"play/ARCHIVE/t" + suffix, "old"}, {"watch/other", "new"}}},
    {"ArchiveIsRemoved", // and nothing replaced that could not be archived
     {{"play/t", "old"}, {"watch/n", "new"}, {"remove-ARCHIVE/", ""}},
     "Cannot move ARCHIVE file into directory, No such file or directory\n" + moved,
     {{"play/t", "old"}, {"watch/n", "new"}, {"remove-ARCHIVE/", ""}}},
    {"TargetInUse", old_and_new, "File 'play/t' is in use, not acting\n", old_and_new, "play/t"},
    {"SourceInUse", old_and_new, "File source 'watch/n' is in use, not acting\n", old_and_new,
     "watch/n"},
    {"MarkerIsAFile",
     {{"play/t", "old"}, {marker, ""}, {"watch/n", "new"}},
     "File 'play/t' is running, not acting\n",
     {{"play/t", "old"}, {marker, ""}, {"watch/n", "new"}}},
    {"PlantedMetadataDirectory",
     {{"elsewhere/.media.item.active.socket", ""},
      {"play/.t.metadir", "-> ../elsewhere"},
      {"watch/n", "new"}},
     moved + "already=0\n",
     {{"elsewhere/.media.item.active.socket", ""},
      {meta, named("n")},
      {"play/ARCHIVE/.t" + suffix + ".metadir", "-> ../elsewhere"},
      {"play/t", "new"},
      {"watch/", ""}}},
    {"TargetFolderIsExchanged", // for another one, in which nothing is touched
     {{"other/.t.metadir/metadata", "a=b\n"},
      {"other/t", "theirs"},
      {"play/", ""},
      {"watch/n", "new"}},
     moved + "Metadir fail\nTarget meta load fail\nalready=0\nTarget meta save fail\n",
     {{"other/ARCHIVE/", ""},
      {"other/t", "new"},
      {meta, "a=b\n"},
      {"play/t", "theirs"},
      {"watch/", ""}}},
};

void check_delivery(const delivery_case &row) {
    const temporary_tree tree;
    make_tree(tree.root, row.before);
    std::optional<child_process> writer;
    if (!row.held.empty())
        writer.emplace([&] { open((tree / row.held).c_str(), O_WRONLY | O_CLOEXEC); });
    root_at_capture = tree.root;
    removed_at_capture = fs::exists(tree / "remove-ARCHIVE") ? tree / "play/ARCHIVE" : fs::path();
    const std::string lines = deliver(tree / "watch", tree / "play" / row.target, "n");
    EXPECT_NE(lines.find(row.line), std::string::npos) << lines;
    EXPECT_EQ(tree_of(tree.root), picture(row.after));
}

const bool delivery_rows = register_rows("Delivery", delivery_cases, check_delivery);

// A marker that is a symbolic link, to a name in a folder with sockets or to a text of its own.
const struct marker_case {
    const char *name;
    const char *link;
    bool runs;
} marker_cases[] = {{"ToServedSocket", "served", true}, {"ToDeadSocket", "dead", false},
                    {"ToAnotherLink", "hop", false},    {"ToAFile", "file", false},
                    {"ToNothing", "gone", false},       {"ByTooLongAPath", "", false}};

void check_marker(const marker_case &row) {
    const temporary_tree sockets;
    const unique_fd server = bound_socket(sockets / "served", SOCK_DGRAM);
    bound_socket(sockets / "dead", SOCK_DGRAM);
    make_tree(sockets.root, {{"file", ""}, {"hop", "-> served"}});
    const std::string link = *row.link == '\0'
                                 ? std::string(600, '/') + (sockets / "served").string()
                                 : (sockets / row.link).string();
    const temporary_tree tree;
    const file_tree before = {{"play/t", "old"}, {marker, "-> " + link}, {"watch/n", "new"}};
    make_tree(tree.root, before);
    const std::string lines = deliver(tree / "watch", tree / "play/t", "n");
    EXPECT_EQ(lines == "File 'play/t' is running, not acting\n", row.runs) << lines;
    EXPECT_EQ(read_file(tree / "play/t"), row.runs ? "old" : "new");
    EXPECT_EQ(tree_of(tree.root) == picture(before), row.runs);
}

const bool marker_rows = register_rows("Marker", marker_cases, check_marker);

} // namespace

TEST(Delivery, First) {
    const temporary_tree tree;
    const std::string any_bytes = "a b\n%s\xff\\"; // in the name of the file
    make_tree(tree.root, {{"play/", ""}, {"watch/" + any_bytes, "new"}});
    EXPECT_EQ(deliver(tree / "watch", tree / "play/t", any_bytes),
              "Checking found file '" + any_bytes +
                  "' to replace 'play/t'\nTarget meta load fail from old file\n"
                  "Original filename: ''\n" +
                  moved + "already=0\n");
    EXPECT_EQ(tree_of(tree.root), picture({{meta, named("a b\\n%s\xff\\\\")},
                                           {"play/ARCHIVE/", ""},
                                           {"play/t", "new"},
                                           {"watch/", ""}}));
}

TEST(Delivery, Replacement) {
    const temporary_tree tree;
    make_tree(tree.root, {{"play/t", "old"},
                          {meta, named("m")},
                          {"play/.t.metadir/x", "1"},
                          {"watch/n", "new"},
                          {"watch/.n.metadir/metadata", "a=b\n" + named("z")}});
    EXPECT_EQ(deliver(tree / "watch", tree / "play/t", "n"),
              "Checking found file 'n' to replace 'play/t'\nmetadata 'original filename'='m'\n"
              "Original filename: 'm'\n" +
                  moved + "metadata 'a'='b'\nmetadata 'original filename'='z'\nalready=1\n");
    EXPECT_EQ(tree_of(tree.root), picture({{meta, "a=b\n" + named("n")},
                                           {"play/ARCHIVE/.m.metadir/metadata", named("m")},
                                           {"play/ARCHIVE/.m.metadir/x", "1"},
                                           {"play/ARCHIVE/m", "old"},
                                           {"play/t", "new"},
                                           {"watch/", ""}}));
}

TEST(Delivery, WithoutALocation) {
    ItemContext item;
    EXPECT_FALSE(item.open_directory() || item.open_metadata_dir() || item.open_file_handles());
    const captured_output lines;
    deliver_file(nullptr, "n", item, WatchEntry());
    EXPECT_EQ(lines.text(), "");
}

TEST(Delivery, AcrossFileSystems) {
    const temporary_tree tree("/dev/shm");
    const temporary_tree other;
    make_tree(tree.root, {{"play/t", "old"}});
    make_tree(other.root, {{"watch/n", "new"}});
    if (rename((other / "watch").c_str(), (tree / "watch").c_str()) == 0)
        GTEST_SKIP() << "/dev/shm and the temporary directory are one file system";
    const std::string lines = deliver(other / "watch", tree / "play/t", "n");
    EXPECT_EQ(lines.substr(lines.find(moved)),
              moved + "Cannot move NEW file into directory, Invalid cross-device link\n"
                      "Cannot move NEW file metadata into directory, Invalid cross-device link\n");
    EXPECT_EQ(tree_of(other.root), "watch/n=new\n");
    EXPECT_EQ(tree_of(tree.root), "play/ARCHIVE/t" + suffix + "=old\n");
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
