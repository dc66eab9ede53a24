// Passes over a main storage: the files before, a line of output, the files after. Then what a
// writer can plant where a pass looks: the pass neither waits nor leaves the main storage, and no
// media file is lost. PLANTED_SWAPS in the environment is the number of random swaps.
#include "config/watch_entry.h"
#include "delivery/cppmetadir.h"
#include "platform/include/process_util.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <random>
#include <sys/syscall.h>
#include <sys/xattr.h>

void (*meanwhile)() = [] {};        // between the opening of ARCHIVE and the moves
void (*before_new_file)() = [] {};  // between the archiving and the move of the new file
std::string refused;                // a call of which the file system knows nothing
std::optional<ChildProcess> lessee; // of metadata

// The clocks of the archive suffix stand still.
uint64_t monotonic_clock_us(void) {
    return 183020443512;
}
extern "C" time_t time(time_t *) noexcept {
    setenv("TZ", "UTC0", 1);
    std::exchange(meanwhile, [] {})();
    return 1706715902;
}

int call_unless_refused(const char *name, long number, long a, const void *b, long c, long d,
                        long e) {
    errno = EINVAL;
    return refused == name ? -1 : static_cast<int>(syscall(number, a, b, c, d, e));
}
extern "C" int renameat2(int a, const char *b, int c, const char *d, unsigned int e) noexcept {
    std::exchange(before_new_file, [] {})();
    return call_unless_refused("renameat2", SYS_renameat2, a, b, c, reinterpret_cast<long>(d), e);
}
extern "C" int fsetxattr(int a, const char *b, const void *c, size_t d, int e) noexcept {
    return call_unless_refused(b, SYS_fsetxattr, a, b, reinterpret_cast<long>(c),
                               static_cast<long>(d), e);
}
// Between two tries to open metadata.
extern "C" int nanosleep(const timespec *, timespec *) {
    lessee.reset();
    return 0;
}

const std::string suffix = " [ARCHIVE 20240131154502.183020443512]";
const std::string named = "original filename="; // in the metadata of what was delivered
const std::string moved = "Existing file moved into ARCHIVE directory.\n";
const std::string meta = "play/.t.metadir/metadata";
const std::string marker = "play/.t.metadir/.media.item.active.socket";
const std::string left_over = "watch/.n.metadir/.metadata.new";

// An old item in place and a new one that waits.
FileTree old_and_new(FileTree more = {}) {
    more.insert({{"play/t", "old"}, {"watch/n", "new"}});
    return more;
}

// The same with the new item in place and the old one in the archive, under a name.
FileTree delivered(const FileTree &before, const std::string &name, const std::string &metadata) {
    FileTree after = {{"watch/", ""}, {meta, metadata}};
    const std::pair<std::string, std::string> moves[] = {
        {"play/t", "play/ARCHIVE/" + name},
        {"play/.t.metadir", "play/ARCHIVE/." + name + ".metadir"},
        {"watch/n", "play/t"},
        {"watch/.n.metadir", "play/.t.metadir"}};
    for (const auto &[path, text] : before) {
        std::string place = path;
        for (const auto &[from, to] : moves)
            if (path.compare(0, from.size(), from) == 0)
                place = to + path.substr(from.size());
        after.insert({fs::path(place).lexically_normal(), text});
    }
    after.erase("play/.t.metadir/.metadata.new");
    return after;
}

const FileTree outside = {{"metadata", "canary=\n"}, {".media.item.active.socket", ""}};

// Its main storage is the working folder, and the lines name paths in it. Beside that is a folder
// in which nothing may change.
struct Storage : TemporaryTree {
    explicit Storage(const FileTree &files) {
        make_tree("canary", outside);
        fs::create_symlink("served", "link");
        make_tree("main", files);
        fs::current_path("main");
        main_path = fs::current_path();
    }
    const UniqueFd served = bound_socket("served", SOCK_DGRAM);
    const UniqueFd idle = bound_socket("idle", SOCK_STREAM);
    ~Storage() { EXPECT_EQ(tree_of("../canary"), outside); }
    // A pass with one entry.
    std::string pass(const std::string &watch = "watch", const std::string &target = "play/t",
                     const char *pattern = "") const {
        WatchEntry entry{"e", main_path + "/" + watch, {}, main_path + "/" + target};
        entry.patterns.emplace_back(pattern);
        configuration = {{"e", entry}};
        return std::regex_replace(output_of(check_watch_entries),
                                  std::regex(root.string() + "/(main/)?"), "");
    }
};

// Paths, each followed by its content.
template<typename... Texts> FileTree files(const Texts &...texts) {
    const std::vector<std::string> all = {texts...};
    FileTree tree;
    for (size_t i = 0; i < all.size(); i += 2)
        tree[all[i]] = all[i + 1];
    return tree;
}

const std::string not_acting = "File 'play/t' is running, not acting\n";

const struct DeliveryCase {
    const char *name;
    FileTree more; // besides an old and a new item
    std::string line;
    std::string archived = {}; // the name in ARCHIVE; empty: nothing is moved, or as told below
    std::string metadata = named + "n\n";
    void (*before_the_moves)() = [] {}; // what somebody else does then
    FileTree after = {};
} delivery_cases[] = {
    {"WithMetadata",
     files(meta, named + "x\n\na\\=b\\\\=c\\n\\\\\\t\n=\n" + named + "m\n", left_over, "by a crash",
           "watch/.n.metadir/metadata", "no value\n\n" + named + "z\nc=d"),
     "metadata 'a=b\\'='c\n\\\\t'\nmetadata 'original filename'='m'\nOriginal filename: 'm'\n" +
         moved + "metadata 'original filename'='z'\nmetadata 'c'='d'\nalready=1\n",
     "m", "no value\n\n" + named + "n\nc=d"},
    {"SlashInRecordedName", // and metadata that has none, and no last newline
     files(meta, named + "../m\n", "watch/.n.metadir/metadata", "\na=1"),
     "Forward slash in original name, rejecting.\nOriginal filename: ''\n" + moved +
         "metadata 'a'='1'\nalready=0\n",
     "t" + suffix, "\na=1\n" + named + "n\n"},
    {"RecordedNameIsTaken", // by a link to nothing
     files(meta, named + "m\n", "play/ARCHIVE/m", "-> gone"),
     "metadata 'original filename'='m'\nOriginal filename: 'm'\n" + moved, "m" + suffix},
    {"MarkerIsAFile", files(marker, ""), not_acting},
    {"MarkerLeadsToAServedSocket", files(marker, "-> ../served"), not_acting},
    {"MarkerLeadsThroughAMagicLink", files(marker, "-> /proc/self/cwd/../served"), moved,
     "t" + suffix},
    {"ArchiveLeadsOutside", files("play/ARCHIVE", "-> ../../canary"),
     "Cannot access ARCHIVE directory, Invalid cross-device link\n"},
    {"ArchiveLeadsThroughAMagicLink", files("play/ARCHIVE", "-> /proc/self/cwd/watch"),
     "Cannot access ARCHIVE directory, Too many levels of symbolic links\n"},
    {"ArchiveIsALinkWithinTheStorage", files("play/ARCHIVE", "-> ../old", "old/x", "x"), moved,
     "../../old/t" + suffix},
    {"ArchiveIsNoDirectory", files("play/ARCHIVE", "x"),
     "Cannot access ARCHIVE directory, Not a directory\n"},
    {"FileSystemKnowsNoFlag", files(), moved + "already=0\n", "t" + suffix, named + "n\n",
     [] { refused = "renameat2"; }},
    {"MetadataUnderALease", files(meta, named + "m\n"), moved, "m", named + "n\n",
     [] { lessee.emplace([] { fcntl(open(meta.c_str(), O_RDWR), F_SETLEASE, F_WRLCK); }); }},
    {"ArchiveHasGone", files(),
     "Cannot move ARCHIVE file into directory, No such file or directory\n", "", "",
     [] { fs::remove("play/ARCHIVE"); }},
    {"SomethingAppearsAtTheTarget", files(), "Cannot move NEW file into directory, File exists\n",
     "", "", [] { before_new_file = [] { write_file("play/t", "theirs"); }; },
     files("play/ARCHIVE/t" + suffix, "old", "play/t", "theirs", "watch/n", "new")},
    {"FolderTookTheNameOfTheTargets", files("other/t", "theirs"),
     "Metadir fail\nTarget meta load fail\nalready=0\nTarget meta save fail\n", "", "",
     [] {
         fs::rename("play", "was");
         fs::rename("other", "play");
     },
     files("play/t", "theirs", "was/t", "new", "was/ARCHIVE/t" + suffix, "old", "watch/", "")},
};

void check_delivery(const DeliveryCase &row) {
    const FileTree before = old_and_new(row.more);
    const Storage tree(before);
    meanwhile = row.before_the_moves;
    refused.clear();
    EXPECT_TRUE(has(tree.pass(), row.line));
    EXPECT_EQ(tree_of("."), !row.after.empty()     ? row.after
                            : row.archived.empty() ? before
                                                   : delivered(before, row.archived, row.metadata));
}

// The storage has "link", which leads to a folder beside it. A file waits in each.
const struct ScanCase {
    const char *name, *watch, *target, *lines;
} scan_cases[] = {
    {"IntoOneFolder", "link/../main/watch", "watch/t", "target realpath: watch\nChecking found"},
    {"WatchIsTheStorage", ".", "play/t", "target realpath: play\nPath(s) do not validate\n"},
    {"TargetInTheStorage", "watch", "t", "Path(s) do not validate\n"},
    {"TargetBesideTheStorage", "watch", "../mainx/t", "Path(s) do not validate\n"},
    {"WatchLeadsOutside", "link", "play/t", "mainx\ntarget realpath: play\nPath(s) do not"},
    {"NoTargetFolder", "watch", "gone/t", "target realpath: \nNot possible to check\n"},
    {"NoWatchFolder", "gone", "play/t", "* cannot scan directory, No such file or directory\n"},
};

void check_scan(const ScanCase &row) {
    const Storage tree(
        {{"watch/f", ""}, {"f", ""}, {"play/t", ""}, {"link", "-> ../mainx"}, {"../mainx/f", ""}});
    EXPECT_TRUE(has(tree.pass(row.watch, row.target), row.lines));
    EXPECT_EQ(fs::exists("watch/f") && fs::exists("../mainx/f"), row.name != scan_cases[0].name);
}

const struct PlantedKind {
    const char *name;
    void (*plant)(const fs::path &at, const fs::path &canary);
} kinds[] = {
    {"LinkToFolder", [](auto &at, auto &canary) { fs::create_symlink(canary, at); }},
    {"LinkToFile", [](auto &at, auto &canary) { fs::create_symlink(canary / "metadata", at); }},
    {"LinkToNothing", [](auto &at, auto &canary) { fs::create_symlink(canary / "gone", at); }},
    {"HardLink", [](auto &at, auto &canary) { fs::create_hard_link(canary / "metadata", at); }},
    {"Fifo", [](auto &at, auto &) { mkfifo(at.c_str(), 0666); }},
    {"FullDirectory", [](auto &at, auto &) { write_file(at / "inside", "planted"); }},
    {"LinkToIdleSocket", [](auto &at, auto &) { fs::create_symlink("../idle", at); }},
    {"LinkToLink", [](auto &at, auto &) { fs::create_symlink("../link", at); }},
    {"BigFile", [](auto &at, auto &) { std::ofstream(at).seekp(2 << 20) << '='; }},
};
const std::string places[] = {"play/t",  "play/.t.metadir",        meta,
                              marker,    "play/ARCHIVE",           "play/ARCHIVE/m",
                              "watch/b", "watch/.n.metadir",       "watch/.n.metadir/metadata",
                              left_over, "play/ARCHIVE/.m.metadir"};

// Puts something planted in the place of what is there, but reaches nothing through what was
// planted before.
void plant(const PlantedKind &kind, const fs::path &place) {
    const UniqueFd parent(open(place.parent_path().c_str(), O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!parent)
        return;
    const fs::path fresh = main_path + "/../fresh", name = place.filename();
    kind.plant(fresh, main_path + "/../canary");
    if (renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), RENAME_EXCHANGE) != 0)
        renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), 0);
    std::error_code failed; // the service may still be at work in there
    do
        fs::remove_all(fresh, failed);
    while (failed);
}

void check_kind(const PlantedKind &kind) {
    for (const std::string &place : places) {
        SCOPED_TRACE(place);
        const Storage tree(old_and_new(
            {{"play/ARCHIVE/x", ""}, {"watch/.n.metadir/x", ""}, {meta, named + "m\n"}}));
        plant(kind, place);
        bool waits = place.find("metadir") == std::string::npos || place.find("ARCHIVE") == 5;
        waits = waits || (place == marker && fs::is_regular_file(fs::symlink_status(marker)));
        tree.pass();
        tree.pass();
        std::string contents;
        for (const auto &[name, content] : tree_of("."))
            contents += content + "|";
        EXPECT_TRUE(has(contents, "new|"));
        EXPECT_TRUE(has(contents, "old|") || place == places[0]);
        EXPECT_TRUE(kind.plant == kinds[3].plant || contents.find("canary=") == std::string::npos);
        EXPECT_TRUE(waits || read_file("play/t") == "new");
    }
}

const bool registered = register_rows("Delivery", delivery_cases, check_delivery) &&
                        register_rows("Scan", scan_cases, check_scan) &&
                        register_rows("Planted", kinds, check_kind);

constexpr char access_list[] = "system.posix_acl_access";

std::string attribute_of(const std::string &path, const char *name) {
    char value[256];
    const ssize_t size = getxattr(path.c_str(), name, value, sizeof(value));
    return {value, static_cast<size_t>(std::max<ssize_t>(size, 0))};
}

// user::rw-, user:1001:rw-, group::---, mask::rw-, other::r--, as the kernel takes it.
const std::string list("\2\0\0\0\1\0\6\0\377\377\377\377\2\0\6\0\351\3\0\0"
                       "\4\0\0\0\377\377\377\377\20\0\6\0\377\377\377\377"
                       "\40\0\4\0\377\377\377\377",
                       44);

TEST(Delivery, RightsAreKeptOrTakenFromTheMediaFile) {
    const Storage tree(old_and_new({{"watch/.n.metadir/metadata", ""}}));
    const bool is_root = chown("watch/.n.metadir/metadata", 56, 78) == 0;
    chmod("watch/.n.metadir/metadata", 0604);
    setxattr("watch/.n.metadir/metadata", "user.rating", "18", 2, 0);
    setxattr("watch/.n.metadir/metadata", access_list, list.data(), list.size(), 0);
    umask(022);
    tree.pass();
    struct stat status {};
    stat(meta.c_str(), &status);
    EXPECT_EQ(status.st_mode, S_IFREG | 0664U);
    EXPECT_TRUE(!is_root || (status.st_uid == 56 && status.st_gid == 78));
    EXPECT_EQ(attribute_of(meta, "user.rating"), "18");
    EXPECT_EQ(attribute_of(meta, access_list), list);
    refused = access_list;
    fs::rename("play/t", "watch/n");
    fs::rename("play/.t.metadir", "watch/.n.metadir");
    tree.pass();
    EXPECT_EQ(fs::status(meta).permissions(), fs::perms{0604}) << "a list that cannot be kept";
    write_file("watch/n", "next");
    chmod("watch/n", 0640);
    tree.pass();
    EXPECT_EQ(fs::status(meta).permissions(), fs::perms{0640});
    EXPECT_EQ(fs::status("play/.t.metadir").permissions(), fs::perms{0750});
    EXPECT_EQ(fs::status("play/ARCHIVE").permissions(), fs::perms{0755});
}

TEST(Scan, PicksOneRegularVisibleMatchingFile) {
    const FileTree never_taken = {
        {".a", ""}, {"b", "no match"}, {"a-folder/", ""}, {"a-link", "-> ../play/t"}};
    const Storage tree({{"play/t", ""}, {"watch/a1", "1"}, {"watch/a2", "2"}});
    make_tree("watch", never_taken);
    for (const int left : {1, 0, 0}) {
        tree.pass("watch", "play/t", "^[.A]");
        EXPECT_EQ(fs::exists("watch/a1") + fs::exists("watch/a2"), left);
    }
    EXPECT_EQ(tree_of("watch"), never_taken);
}

TEST(Planted, RandomSwapsUnderPasses) {
    const char *wanted = getenv("PLANTED_SWAPS");
    long swaps = wanted == nullptr ? 2000 : strtol(wanted, nullptr, 10);
    std::mt19937 dice(1);
    const Storage tree(FileTree{{"play/", ""}});
    const auto swap = [&] {
        if (swaps-- <= 0)
            _exit(0);
        write_file("watch/" + std::to_string(swaps % 3), "media");
        plant(kinds[dice() % std::size(kinds)], places[dice() % std::size(places)]);
    };
    const ChildProcess writer([] {}, swap);
    while (writer.status(WNOHANG) < 0)
        tree.pass();
    EXPECT_EQ(writer.status(), 0);
}

TEST(Pass, VisitsEveryConsistentValidEntryInOrder) {
    main_path = "/main";
    const WatchEntry entry{"A", "/gone", {}, "t"}, last{"b", "/gone", {}, "t"};
    configuration = {{"b", last}, {"A", entry}, {"a", entry}, {"aa", {"aa", "/gone", {}, ""}}};
    const std::string lines = output_of(check_watch_entries);
    EXPECT_TRUE(has(lines, "Checking... (main='/main')\nChecking 'A' in '/gone'\n  if new"));
    EXPECT_TRUE(has(lines, "directory\nBUG: a forgot it's entry name\nEntry 'A'\n"));
    EXPECT_TRUE(has(lines, "  Target:     't'\nChecking 'b' in '/gone'\n"));
}

TEST(Cppmetadir, MapsPathsWithinBounds) {
    const std::string folder(4090, '/');
    EXPECT_EQ(file_to_metadir(folder + "a.mxfx"), folder + ".a.mxfx.metadir");
    EXPECT_EQ(file_to_metadir(folder + "a.mxf--") + file_to_metadir(std::string(247, 'n')), "");
    EXPECT_TRUE(is_metadata_dir_name(".a.metadir") && metadir_to_file("x/.a.metadir") == "x/a");
}
