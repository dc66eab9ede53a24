// Passes over a main storage: the files before, a line of output, the files
// after. Then what a writer can plant where a pass looks: the pass neither
// waits nor leaves the main storage, and no media file is lost.
#include "config/watch_entry.h"
#include "delivery/cppmetadir.h"
#include "platform/include/process_util.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <sys/syscall.h>
#include <sys/xattr.h>

// Called once: before a pass, between the opening of ARCHIVE and the moves, and
// between the archiving and the move of the new file.
std::function<void()> before_pass = [] {}, meanwhile = before_pass, before_new_file = before_pass;
std::string refused;                // what the file system does not know
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

extern "C" int renameat2(int a, const char *b, int c, const char *d, unsigned int e) noexcept {
    std::exchange(before_new_file, [] {})();
    errno = EINVAL;
    return refused == "flag" ? -1 : static_cast<int>(syscall(SYS_renameat2, a, b, c, d, e));
}
extern "C" int fsetxattr(int a, const char *name, const void *c, size_t d, int e) noexcept {
    errno = EINVAL;
    return refused == name ? -1 : static_cast<int>(syscall(SYS_fsetxattr, a, name, c, d, e));
}
// Between two tries to open metadata.
extern "C" int nanosleep(const timespec *, timespec *) {
    lessee.reset();
    return 0;
}

const std::string suffix = " [ARCHIVE 20240131154502.183020443512]";
const std::string named = "original filename="; // in the metadata of what was delivered
const std::string moved = "Existing file moved into ARCHIVE directory.\n";
const std::string not_acting = "File 'play/t' is running, not acting\n";
const std::string archive = "play/ARCHIVE";
const std::string meta = "play/.t.metadir/metadata";
const std::string marker = "play/.t.metadir/.media.item.active.socket";
const std::string new_meta = "watch/.n.metadir/metadata";
const std::string left_over = "watch/.n.metadir/.metadata.new";

const FileTree outside = {
    {"metadata", "canary=\n"}, {".media.item.active.socket", ""}, {"empty", ""}};

// Its main storage is the working folder, and the lines name paths in it: an
// old item, a new one that waits, and a path with its text. Beside it is a
// folder in which nothing may change.
struct Storage : TemporaryTree {
    explicit Storage(const std::string &path = "watch/.x", const std::string &text = "") {
        make_tree("canary", outside);
        fs::create_symlink("served", "link");
        fs::create_directory("main");
        fs::current_path("main");
        main_path = fs::current_path();
        make_tree(".", {{"play/t", "old"}, {meta, named + "m\n"}, {"watch/n", "new"}});
        fs::remove_all(path);
        write_file(path, text);
    }
    ~Storage() { EXPECT_EQ(tree_of("../canary"), outside); }
    // A pass with one entry.
    std::string pass(const std::string &watch = "watch", const std::string &target = "play/t",
                     const char *pattern = "") const {
        WatchEntry entry{"e", main_path + "/" + watch, {}, main_path + "/" + target};
        entry.patterns.emplace_back(pattern);
        configuration = {{"e", entry}};
        const std::regex folder(root.string() + "/(main/)?");
        return std::regex_replace(output_of(check_watch_entries), folder, "");
    }
    const UniqueFd served = bound_socket("served", SOCK_DGRAM);
    const UniqueFd idle = bound_socket("idle", SOCK_STREAM);
};

const struct DeliveryCase {
    const char *name;
    std::string path, text; // besides the items, or in them
    std::string line;
    std::string archived = {};   // the name in ARCHIVE; without one nothing is moved
    void (*meanwhile)() = [] {}; // what somebody else does before the moves
    std::string metadata = named + "n\n";
} delivery_cases[] = {
    {"NoMetadata", "play/.t.metadir/", "", "load fail from old file\n", "t" + suffix},
    {"EveryForm", meta, named + "x\n\na\\=b\\\\=c\\n\\\\\\t\n=\n" + named + "m\n",
     "'a=b\\'='c\n\\\\t'\n", "m"},
    {"TooLong", meta, named + "m\n" + std::string(1 << 20, '='), "load fail", "t" + suffix},
    {"SlashInName", meta, named + "../m\n", "rejecting.\nOriginal filename: ''\n", "t" + suffix},
    {"TakenName", archive + "/m", "-> gone", "Original filename: 'm'\n" + moved, "m" + suffix},
    {"AddedName", new_meta, "\na=1", "already=0\n", "m", [] {}, "\na=1\n" + named + "n\n"},
    {"ReplacedName", new_meta, "b\n\n" + named + "z\nc=d", "'c'='d'\nalready=1\n", "m", [] {},
     "b\n\n" + named + "n\nc=d"},
    {"LeftByACrash", left_over, "a half", moved, "m"},
    {"FileForMarker", marker, "", not_acting},
    {"ServedSocket", marker, "-> ../served", not_acting},
    {"SocketBehindAMagicLink", marker, "-> /proc/self/cwd/../served", moved, "m"},
    {"ArchiveOutside", archive, "-> ../../canary", "directory, Invalid cross-device link\n"},
    {"ArchiveBehindAMagicLink", archive, "-> /proc/self/cwd/watch", "directory, Too many levels"},
    {"ArchiveIsALink", archive, "-> ../watch", moved, "m"},
    {"FlagIsUnknown", archive + "/", "", moved, "m", [] { refused = "flag"; }},
    {"MetadataUnderALease", archive + "/", "", moved, "m",
     [] { lessee.emplace([] { fcntl(open(meta.c_str(), O_RDWR), F_SETLEASE, F_WRLCK); }); }},
    {"ArchiveHasGone", "play/.x", "", "ARCHIVE file into directory, No such file", "",
     [] { fs::remove(archive); }},
};

void check_delivery(const DeliveryCase &row) {
    const Storage tree(row.path, row.text);
    const FileTree before = tree_of(".");
    const std::string old_metadata = read_file(meta);
    meanwhile = row.meanwhile;
    refused.clear();
    EXPECT_TRUE(has(tree.pass(), row.line));
    if (row.archived.empty()) {
        EXPECT_EQ(tree_of("."), before);
        return;
    }
    EXPECT_EQ(tree_of("watch").count("n"), 0U);
    EXPECT_EQ(read_file("play/t"), "new");
    EXPECT_EQ(tree_of("play/.t.metadir"), FileTree({{"metadata", row.metadata}}));
    EXPECT_EQ(read_file(archive + "/" + row.archived), "old");
    EXPECT_EQ(read_file(archive + "/." + row.archived + ".metadir/metadata"), old_metadata);
}

// The storage has "link", which leads to a folder beside it. A file waits in
// each.
const struct ScanCase {
    const char *name, *watch, *target, *lines;
    bool delivers = false;
} scan_cases[] = {
    {"IntoOneFolder", "link/../main/watch", "watch/t", "target realpath: watch\nChecking", true},
    {"WatchIsTheStorage", ".", "play/t", "play\nPath(s) do not validate\n"},
    {"TargetBesideTheStorage", "watch", "../mainx/t", "Path(s) do not validate\n"},
    {"NoTargetFolder", "watch", "gone/t", "target realpath: \nNot possible to check\n"},
    {"NoWatchFolder", "gone", "play/t", "* cannot scan directory, No such file"},
};

void check_scan(const ScanCase &row) {
    const Storage tree("link", "-> ../mainx");
    make_tree(".", {{"f", ""}, {"../mainx/f", ""}});
    EXPECT_TRUE(has(tree.pass(row.watch, row.target), row.lines));
    EXPECT_EQ(fs::exists("watch/n"), !row.delivers);
    EXPECT_TRUE(fs::exists("../mainx/f"));
}

void link_to(const char *file, const char *at) {
    fs::create_symlink(main_path + "/../" + file, at);
}

constexpr char at_file[] = ".*(socket|ARCHIVE)";

const struct PlantedKind {
    const char *name;
    void (*plant)(const char *at);
    const char *waits_at = ".*ARCHIVE"; // where the new file waits
} kinds[] = {
    {"LinkToFolder", [](auto *at) { link_to("canary", at); }},
    {"LinkToFile", [](auto *at) { link_to("canary/metadata", at); }},
    {"LinkToNothing", [](auto *at) { link_to("gone", at); }},
    {"LinkToIdleSocket", [](auto *at) { link_to("idle", at); }},
    {"HardLink", [](auto *at) { fs::create_hard_link("../canary/empty", at); }, at_file},
    {"BigFile", [](auto *at) { std::ofstream(at).seekp(2 << 20) << '='; }, at_file},
    {"Fifo", [](auto *at) { mkfifo(at, 0666); }},
    {"FullDirectory", [](auto *at) { write_file(fs::path(at) / "x", "planted"); }, "nowhere"},
};

const std::string places[] = {
    "play/t",           "play/.t.metadir", meta,      marker,
    "play/ARCHIVE",     "play/ARCHIVE/m",  "watch/b", "play/ARCHIVE/.m.metadir",
    "watch/.n.metadir", new_meta,          left_over};

// Planted before a pass or in the midst of one. What was there is moved away.
void check_kind(const PlantedKind &kind) {
    for (const std::string &place : places)
        for (auto *moment : {&before_pass, &meanwhile, &before_new_file}) {
            SCOPED_TRACE(place);
            const Storage tree("watch/.n.metadir/x");
            fs::create_directory(archive);
            *moment = [&] {
                std::error_code ignored;
                fs::rename(place, "../taken", ignored);
                if (fs::exists(fs::path(place).parent_path()))
                    kind.plant(place.c_str());
            };
            std::exchange(before_pass, [] {})();
            tree.pass();
            tree.pass();
            const bool waits = std::regex_match(place, std::regex(kind.waits_at));
            EXPECT_EQ(fs::exists("watch/n"), waits && moment == &before_pass);
            std::string contents;
            for (const auto &[name, content] : tree_of(".."))
                contents += content + "|";
            EXPECT_EQ(contents.find("canary="), contents.rfind("canary=")) << "was copied";
            EXPECT_TRUE(has(contents, "new|"));
            EXPECT_TRUE(has(contents, "old|"));
        }
}

const bool registered = register_rows("Delivery", delivery_cases, check_delivery) &&
                        register_rows("Scan", scan_cases, check_scan) &&
                        register_rows("Planted", kinds, check_kind);

constexpr char access_list[] = "system.posix_acl_access";

// user::rw-, user:1001:rw-, group::---, mask::rw-, other::r--, as the kernel
// takes it.
const std::string list("\2\0\0\0\1\0\6\0\377\377\377\377\2\0\6\0\351\3\0\0"
                       "\4\0\0\0\377\377\377\377\20\0\6\0\377\377\377\377"
                       "\40\0\4\0\377\377\377\377",
                       44);

// Mode, owner, group and attributes.
std::string rights_of(const char *path) {
    struct stat status {};
    char rating[8] = "", entries[64] = "";
    stat(path, &status);
    (void)getxattr(path, "user.rating", rating, sizeof(rating));
    (void)getxattr(path, access_list, entries, sizeof(entries));
    return std::to_string(status.st_mode) + " " + std::to_string(status.st_uid) + " " +
           std::to_string(status.st_gid) + " " + rating + std::string(entries, sizeof(entries));
}

TEST(Delivery, NeverReplacesWhatAppearsAtTheTarget) {
    const Storage tree("watch/.n.metadir/x");
    before_new_file = [] { write_file("play/t", "theirs"); };
    EXPECT_TRUE(has(tree.pass(), "Cannot move NEW file into directory, File exists\n"));
    EXPECT_EQ(read_file("play/t"), "theirs");
    EXPECT_TRUE(fs::exists("watch/.n.metadir"));
}

TEST(Delivery, WritesNothingIntoAnotherFolderOfTheName) {
    const Storage tree("other/t", "theirs");
    meanwhile = [] {
        fs::rename("play", "was");
        fs::rename("other", "play");
    };
    EXPECT_TRUE(has(tree.pass(), "Metadir fail\nTarget meta load fail\n"));
    EXPECT_EQ(tree_of("play"), FileTree({{"t", "theirs"}}));
    EXPECT_EQ(read_file("was/t"), "new");
}

TEST(Delivery, RightsAreKeptOrTakenFromTheMediaFile) {
    const Storage tree(new_meta);
    const char *path = new_meta.c_str();
    EXPECT_EQ(chown(path, 56, 78), geteuid() == 0 ? 0 : -1);
    EXPECT_EQ(chmod(path, 0604), 0);
    EXPECT_EQ(setxattr(path, "user.rating", "18", 2, 0), 0);
    EXPECT_EQ(setxattr(path, access_list, list.data(), list.size(), 0), 0);
    const std::string rights = rights_of(path);
    umask(022);
    tree.pass();
    EXPECT_EQ(rights_of(meta.c_str()), rights);
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
        {".x", ""}, {"n", "new"}, {"a-folder/", ""}, {"a-link", "-> ../play/t"}};
    const Storage tree("watch/a1");
    make_tree("watch", never_taken);
    write_file("watch/a2", "");
    for (const int left : {1, 0, 0}) {
        tree.pass("watch", "play/t", "^[.A]");
        EXPECT_EQ(fs::exists("watch/a1") + fs::exists("watch/a2"), left);
    }
    EXPECT_EQ(tree_of("watch"), never_taken);
}

TEST(Pass, VisitsEveryConsistentValidEntryInOrder) {
    main_path = "/main";
    const WatchEntry entry{"A", "/gone", {}, "t"}, last{"b", "/gone", {}, "t"};
    configuration = {{"b", last}, {"A", entry}, {"a", entry}, {"aa", {"aa", "/gone", {}, ""}}};
    const std::string lines = output_of(check_watch_entries);
    EXPECT_TRUE(has(lines, "Checking... (main='/main')\nChecking 'A' in '/gone'\n"));
    EXPECT_TRUE(has(lines, "\nBUG: a forgot it's entry name\nEntry 'A'\n"));
    EXPECT_TRUE(has(lines, "  Target:     't'\nChecking 'b' in '/gone'\n"));
}

TEST(Cppmetadir, MapsPathsWithinBounds) {
    const std::string folder(4090, '/');
    EXPECT_EQ(file_to_metadir(folder + "a.mxfx"), folder + ".a.mxfx.metadir");
    EXPECT_EQ(file_to_metadir(folder + "a.mxf--"), "");
    EXPECT_EQ(metadir_to_file("x/.a.metadir"), "x/a");
}
