// Everything that can be planted where a pass looks: it neither waits nor leaves the main storage,
// and nothing is lost. PLANTED_SWAPS in the environment is the number of random swaps under passes.
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <iostream>
#include <random>
#include <sys/sysmacros.h>

namespace {

const struct planted_kind {
    const char *name;
    void (*plant)(const fs::path &at, const fs::path &canary);
} kinds[] = {
    {"LinkToFile", [](auto &at, auto &canary) { fs::create_symlink(canary / "metadata", at); }},
    {"LinkToFolder", [](auto &at, auto &canary) { fs::create_symlink(canary, at); }},
    {"LinkToNothing", [](auto &at, auto &canary) { fs::create_symlink(canary / "new", at); }},
    {"HardLink", [](auto &at, auto &canary) { fs::create_hard_link(canary / "metadata", at); }},
    {"Fifo", [](auto &at, auto &) { mkfifo(at.c_str(), 0666); }},
    {"Device", [](auto &at, auto &) { mknod(at.c_str(), S_IFCHR, makedev(5, 0)); }},
    {"FullDirectory", [](auto &at, auto &) { write_file(at / "inside", "planted"); }},
    {"StrangeBytes",
     [](auto &at, auto &) {
         write_file(at, {"\0=\n%s=%n", 8});
     }},
    {"BigFile",
     [](auto &at, auto &) {
         write_file(at, "");
         fs::resize_file(at, 9 << 20);
     }},
};
const std::string places[] = {"target/t",
                              "target/.t.metadir",
                              "target/.t.metadir/metadata",
                              "target/.t.metadir/.media.item.active.socket",
                              "target/ARCHIVE",
                              "target/ARCHIVE/old.mxf",
                              "watch/b.mxf",
                              "watch/.a.mxf.metadir",
                              "watch/.a.mxf.metadir/.metadata.new"};

// A link at ARCHIVE is followed: who can put it there may write beside the target.
bool is_followed(const planted_kind &kind, const std::string &place) {
    return place == "target/ARCHIVE" && kind.name == std::string("LinkToFolder");
}

struct storage : temporary_tree {
    storage() {
        make_tree(root, {{"canary/metadata", "canary"}, {"main/target/", ""}, {"main/watch/", ""}});
        main_path = *this / "main";
        configuration = {
            {"e", {"e", main_path + "/watch", {RegexState("mxf$")}, main_path + "/target/t"}}};
    }
    auto canary() const {
        return std::pair(tree_of(*this / "canary"), fs::last_write_time(*this / "canary/metadata"));
    }
};

void check_kind(const planted_kind &kind) {
    for (const std::string &place : places) {
        if (is_followed(kind, place))
            continue;
        SCOPED_TRACE(place);
        const storage tree;
        const fs::path at = tree / ("main/" + place);
        make_tree(tree / "main", {{"watch/a.mxf", "media"},
                                  {"target/.t.metadir/metadata", "original filename=old.mxf\n"}});
        if (place != places[0])
            write_file(tree / "main/target/t", "old media");
        fs::remove_all(at);
        fs::create_directories(at.parent_path());
        kind.plant(at, tree / "canary");
        const auto before = tree.canary();
        alarm(30); // no pass waits
        for (int pass = 0; pass < 3; ++pass)
            check_watch_entries();
        alarm(0);
        EXPECT_TRUE(tree.canary() == before);
        std::multiset<std::string> contents;
        for (const auto &[name, content] : tree_of(tree / "main"))
            contents.insert(content);
        EXPECT_EQ(contents.count("media"), 1U);
        EXPECT_EQ(contents.count("old media"), place == places[0] ? 0U : 1U);
        EXPECT_LE(contents.count("canary"), kind.name == std::string("HardLink") ? 1U : 0U);
    }
}

const bool registered = register_rows("Planted", kinds, check_kind);

} // namespace

// Puts something planted in the place of what is there. The swaps themselves must not reach the
// canary through what was planted before.
static void swap(const storage &tree, const planted_kind &kind, const fs::path &place) {
    const fs::path fresh = tree / "fresh";
    const unique_fd parent(open(fs::path(tree / ("main/" + place.string())).parent_path().c_str(),
                                O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!parent || is_followed(kind, place))
        return;
    kind.plant(fresh, tree / "canary");
    const std::string name = place.filename();
    if (renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), RENAME_EXCHANGE) != 0)
        renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), 0);
    std::error_code failed; // the service may still be at work in there
    do
        fs::remove_all(fresh, failed);
    while (failed);
}

TEST(Planted, RandomSwapsUnderPasses) {
    const char *wanted = getenv("PLANTED_SWAPS");
    const long swaps = wanted == nullptr ? 2000 : strtol(wanted, nullptr, 10);
    const storage tree;
    const auto before = tree.canary();
    const pid_t writer = fork();
    if (writer == 0) {
        std::mt19937 dice(1);
        for (long i = 0; i < swaps; ++i) {
            write_file(tree / ("main/watch/clip" + std::to_string(i % 3) + ".mxf"), "media");
            swap(tree, kinds[dice() % std::size(kinds)], places[dice() % std::size(places)]);
        }
        _exit(0);
    }
    long passes = 0;
    int status = 0;
    for (; waitpid(writer, &status, WNOHANG) == 0; ++passes) {
        alarm(30); // no pass waits
        check_watch_entries();
    }
    alarm(0);
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(tree.canary() == before);
    std::cout << passes << " passes under " << swaps << " swaps\n";
}
