// Passes over a main storage: what is there before, a line that decides, what is there after.
#include "config/watch_entry.h"
#include "delivery/cppmetadir.h"
#include "platform/include/process_util.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <optional>

namespace {

void (*meanwhile)() = [] {}; // between the opening of ARCHIVE and the moves

} // namespace

// The clocks of the archive suffix stand still.
uint64_t monotonic_clock_us(void) {
    return 183020443512;
}
extern "C" time_t time(time_t *) noexcept {
    meanwhile();
    return 1706715902;
}

namespace {

const std::string suffix = " [ARCHIVE 20240131154502.183020443512]";
const std::string moved = "Existing file moved into ARCHIVE directory.\n";
const std::string meta = "play/.t.metadir/metadata";
const std::string marker = "play/.t.metadir/.media.item.active.socket";

// What the metadata of an item says that was delivered under this name.
std::string named(const std::string &name) {
    return "original filename=" + name + "\n";
}

// An old item in place and a new one that waits.
file_tree old_and_new(file_tree more) {
    more.insert({{"play/t", "old"}, {"watch/n", "new"}});
    return more;
}

// The new item in place, the old one in the archive.
file_tree archived_as(const std::string &name, const std::string &metadata, file_tree more = {}) {
    more.insert({{"play/ARCHIVE/" + name, "old"},
                 {"play/ARCHIVE/." + name + ".metadir/metadata", metadata},
                 {"play/t", "new"},
                 {meta, named("n")},
                 {"watch/", ""}});
    return more;
}

// A pass with one entry. The working folder is the main storage, and the lines name paths in it.
std::string pass(const std::string &watch = "watch", const std::string &target = "play/t",
                 const char *pattern = "") {
    main_path = fs::current_path();
    WatchEntry entry{"e", main_path + "/" + watch, {}, main_path + "/" + target};
    entry.patterns.emplace_back(pattern);
    configuration = {{"e", entry}};
    const auto before = open_descriptors();
    const std::string lines = output_of(check_watch_entries);
    EXPECT_EQ(open_descriptors(), before);
    return replaced(lines, main_path + "/", "");
}

struct storage : temporary_tree {
    explicit storage(const file_tree &files) {
        make_tree(root / "main", files);
        fs::current_path(root / "main");
    }
};

const struct delivery_case {
    const char *name;
    file_tree before;
    std::string line;
    file_tree after = {};  // where nothing is moved empty
    std::string held = {}; // a file that somebody writes to
    void (*meanwhile)() = [] {};
} delivery_cases[] = {
    {"First",
     {{"play/", ""}, {"watch/n", "new"}},
     "Checking found file 'n' to replace 'play/t'\nTarget meta load fail from old file\n"
     "Original filename: ''\n" +
         moved + "already=0\n",
     {{"play/ARCHIVE/", ""}, {"play/t", "new"}, {meta, named("n")}, {"watch/", ""}}},
    {"WithMetadata",
     old_and_new(
         {{meta, "a=b\n" + named("m")}, {"watch/.n.metadir/metadata", named("z") + "c=d\n"}}),
     "metadata 'a'='b'\nmetadata 'original filename'='m'\nOriginal filename: 'm'\n" + moved +
         "metadata 'original filename'='z'\nmetadata 'c'='d'\nalready=1\n",
     archived_as("m", "a=b\n" + named("m"), {{meta, named("n") + "c=d\n"}})},
    {"SlashInRecordedName", old_and_new({{meta, named("../m")}}),
     "Forward slash in original name, rejecting.\nOriginal filename: ''\n",
     archived_as("t" + suffix, named("../m"))},
    {"RecordedNameIsTaken", // by a link to nothing
     old_and_new({{meta, named("x") + named("m")}, {"play/ARCHIVE/m", "-> gone"}}),
     "to replace 'play/t'\nmetadata 'original filename'='x'\nmetadata 'original "
     "filename'='m'\nOriginal filename: 'm'\n" +
         moved,
     archived_as("m" + suffix, named("x") + named("m"), {{"play/ARCHIVE/m", "-> gone"}})},
    {"ArchiveIsNoDirectory", old_and_new({{"play/ARCHIVE", "x"}}),
     "Cannot access ARCHIVE directory, Not a directory\n"},
    {"ArchivedMetadataInTheWay",
     old_and_new({{meta, ""}, {"play/ARCHIVE/.t" + suffix + ".metadir/x", ""}}),
     "Cannot move ARCHIVE file metadata into directory, Directory not empty\n" + moved,
     {{meta, ""},
      {"play/ARCHIVE/.t" + suffix + ".metadir/x", ""},
      {"play/ARCHIVE/t" + suffix, "old"},
      {"watch/n", "new"}}},
    {"ArchiveIsRemoved", // and nothing replaced that could not be archived
     old_and_new({}),
     "Cannot move ARCHIVE file into directory, No such file or directory\n" + moved,
     {},
     "",
     [] { fs::remove("play/ARCHIVE"); }},
    {"TargetFolderIsExchanged", // for another one, in which nothing is touched
     {{"other/t", "theirs"}, {meta, "a=b\n"}, {"watch/n", "new"}},
     "Metadir fail\nTarget meta load fail\nalready=0\nTarget meta save fail\n",
     {{"was/t", "new"},
      {"was/ARCHIVE/.t" + suffix + ".metadir/metadata", "a=b\n"},
      {"play/t", "theirs"},
      {"watch/", ""}},
     "",
     [] {
         fs::rename("play", "was");
         fs::rename("other", "play");
     }},
    {"TargetInUse", old_and_new({}), "File 'play/t' is in use, not acting\n", {}, "play/t"},
    {"SourceInUse",
     old_and_new({}),
     "File source 'watch/n' is in use, not acting\n",
     {},
     "watch/n"},
    {"MarkerIsAFile", old_and_new({{marker, ""}}), "File 'play/t' is running, not acting\n"},
    {"MarkerToServedSocket", old_and_new({{marker, "-> ../socket"}}),
     "File 'play/t' is running, not acting\n"},
};

void check_delivery(const delivery_case &row) {
    const storage tree(row.before);
    const unique_fd served = bound_socket("../socket", SOCK_DGRAM);
    meanwhile = row.meanwhile;
    std::optional<child_process> writer;
    if (!row.held.empty())
        writer.emplace([&] { open(row.held.c_str(), O_WRONLY | O_CLOEXEC); });
    umask(022);
    EXPECT_TRUE(has(pass(), row.line));
    EXPECT_NE(fs::status("play/ARCHIVE").permissions(), fs::perms::owner_all) << "readable to all";
    EXPECT_EQ(tree_of("."), row.after.empty() ? row.before : row.after);
}

// The storage has "link", which leads to a folder beside it. A file waits in each.
const struct scan_case {
    const char *name, *watch, *target, *lines;
} scan_cases[] = {
    {"IntoOneFolder", "link/../main/watch", "watch/t",
     "watch realpath: watch\ntarget realpath: watch\nChecking found file 'f'"},
    {"WatchIsTheStorage", ".", "play/t", "target realpath: play\nPath(s) do not validate\n"},
    {"TargetInTheStorage", "watch", "t", "Path(s) do not validate\n"},
    {"WatchLeadsOutside", "link", "play/t", "target realpath: play\nPath(s) do not validate\n"},
    {"TargetOutside", "watch", "../mainx/t",
     "watch realpath: watch\ntarget realpath: ../mainx\nPath(s) do not validate\n"},
    {"NoTargetFolder", "watch", "gone/t",
     "watch realpath: watch\ntarget realpath: \nNot possible to check\n"},
    {"NoWatchFolder", "gone", "play/t", "* cannot scan directory, No such file or directory\n"},
};

void check_scan(const scan_case &row) {
    const file_tree files = {
        {"watch/f", ""}, {"f", ""}, {"play/t", ""}, {"link", "-> ../mainx"}, {"../mainx/f", ""}};
    const storage tree(files);
    meanwhile = [] {};
    EXPECT_TRUE(has(replaced(pass(row.watch, row.target), tree / "mainx", "../mainx"), row.lines));
    EXPECT_EQ(fs::exists("watch/f") && fs::exists("../mainx/f"), row.name != scan_cases[0].name);
}

const bool registered = register_rows("Delivery", delivery_cases, check_delivery) &&
                        register_rows("Scan", scan_cases, check_scan);

} // namespace

TEST(Delivery, MarkersThatDoNotCount) {
    const temporary_tree sockets;
    const unique_fd served = bound_socket(sockets / "served", SOCK_DGRAM);
    make_tree(sockets.root, {{"dead", "?"}, {"file", ""}, {"link", "-> served"}});
    const std::string path = "-> " + sockets.root.string();
    for (const std::string &content :
         {std::string("?"), path + "/dead", path + "/file", path + "/link", path + "/gone",
          path + std::string(500, '/') + "served"}) {
        const storage tree(old_and_new({{marker, content}}));
        pass();
        EXPECT_EQ(read_file("play/t"), "new") << content;
    }
    const storage tree(
        old_and_new({{"play/.t.metadir", "-> ."}, {"play/.media.item.active.socket", ""}}));
    pass();
    EXPECT_EQ(read_file("play/t"), "new") << "a marker in a folder to which the directory leads";
}

TEST(Scan, PicksOneRegularVisibleMatchingFile) {
    const file_tree never_taken = {
        {".a", ""}, {"b", "no match"}, {"a-folder/", ""}, {"a-link", "-> ../play/t"}};
    const storage tree({{"play/t", ""}, {"watch/a1", "1"}, {"watch/a2", "2"}});
    make_tree("watch", never_taken);
    {
        const child_process writer([&] {
            for (const char *name : {"watch/a1", "watch/a2"})
                open(name, O_WRONLY | O_CLOEXEC);
        });
        const std::string lines = pass("watch", "play/t", "^[.a]");
        EXPECT_TRUE(has(lines, "is in use"));
        EXPECT_EQ(lines.find("is in use"), lines.rfind("is in use")) << "the other one waits";
    }
    for (const int left : {1, 0, 0}) {
        pass("watch", "play/t", "^[.a]");
        EXPECT_EQ(fs::exists("watch/a1") + fs::exists("watch/a2"), left);
    }
    EXPECT_EQ(tree_of("watch"), never_taken);
}

TEST(Pass, VisitsEveryConsistentValidEntryInOrder) {
    main_path = "/main";
    const std::vector<RegexState> bad{RegexState(""), RegexState("(")};
    configuration = {{"b", {"b", "/gone", {}, "/t"}},
                     {"A", {"A", "/gone", {}, "/t"}},
                     {"a", {"A", "/gone", {}, "/t"}},
                     {"c", {"c", "/gone", {}, ""}},
                     {"d", {"d", "/gone", bad, "/t"}}};
    const std::string scan = "' in '/gone'\n  if new entries replace '/t'\n* cannot scan "
                             "directory, No such file or directory\n";
    EXPECT_EQ(output_of(check_watch_entries),
              "Checking... (main='/main')\nChecking 'A" + scan +
                  "BUG: a forgot it's entry name\nEntry 'A'\n  Watch:      '/gone'\n  Target:     "
                  "'/t'\nChecking 'b" +
                  scan);
}

TEST(Cppmetadir, BoundsAndAssertions) {
    const std::string directory(4090, '/');
    EXPECT_EQ(file_to_metadir(directory + "a.mxfx"), directory + ".a.mxfx.metadir");
    EXPECT_EQ(file_to_metadir(directory + "a.mxf--"), "") << "4097 bytes";
    EXPECT_TRUE(metadir_to_file(".a.metadir") == "a" && is_metadata_dir_name(".a.metadir"));
    EXPECT_DEATH(file_to_metadir(static_cast<const char *>(nullptr)),
                 "std::string file_to_metadir\\(const char ?\\*\\): Assertion `path != NULL'");
}
