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
    {"LinkToFolder", [](auto &at, auto &canary) { fs::create_symlink(canary, at); }},
    {"LinkToFile", [](auto &at, auto &canary) { fs::create_symlink(canary / "metadata", at); }},
    {"LinkToNothing", [](auto &at, auto &canary) { fs::create_symlink(canary / "new", at); }},
    {"HardLink", [](auto &at, auto &canary) { fs::create_hard_link(canary / "metadata", at); }},
    {"Fifo", [](auto &at, auto &) { mkfifo(at.c_str(), 0666); }},
    {"Device", [](auto &at, auto &) { mknod(at.c_str(), S_IFCHR, makedev(5, 0)); }},
    {"FullDirectory", [](auto &at, auto &) { write_file(at / "inside", "planted"); }},
    {"BigFile", [](auto &at, auto &) { std::ofstream(at).seekp(9 << 20) << '='; }},
};
const std::string places[] = {"play/t",
                              "play/.t.metadir",
                              "play/.t.metadir/metadata",
                              "play/.t.metadir/.media.item.active.socket",
                              "play/ARCHIVE",
                              "play/ARCHIVE/m",
                              "in/b",
                              "in/.a.metadir",
                              "in/.a.metadir/.metadata.new"};

struct storage : temporary_tree {
    storage() {
        make_tree(root, {{"canary/metadata", "canary"}, {"main/play/", ""}, {"main/in/", ""}});
        written = fs::last_write_time(*this / "canary/metadata");
        main_path = *this / "main";
        const std::vector<RegexState> all{RegexState("")};
        configuration = {{"e", {"e", main_path + "/in", all, main_path + "/play/t"}}};
    }
    ~storage() {
        EXPECT_EQ(tree_of(*this / "canary"), (file_tree{{"metadata", "canary"}}));
        EXPECT_TRUE(fs::last_write_time(*this / "canary/metadata") == written);
    }
    fs::file_time_type written;
};

// Puts something planted in the place of what is there, but reaches nothing through what was
// planted before. A link at ARCHIVE is followed: who can put it there may write beside the target.
void plant(const storage &tree, const planted_kind &kind, const std::string &place) {
    const fs::path at = tree / ("main/" + place), fresh = tree / "fresh";
    const unique_fd parent(open(at.parent_path().c_str(), O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!parent || (place == "play/ARCHIVE" && kind.plant == kinds[0].plant))
        return;
    kind.plant(fresh, tree / "canary");
    const std::string name = at.filename();
    if (renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), RENAME_EXCHANGE) != 0)
        renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), 0);
    std::error_code failed; // the service may still be at work in there
    do
        fs::remove_all(fresh, failed);
    while (failed);
}

void check_kind(const planted_kind &kind) {
    for (const std::string &place : places) {
        SCOPED_TRACE(place);
        const storage tree;
        make_tree(main_path, {{"in/a", "media"},
                              {"play/t", "old"},
                              {"in/.a.metadir/x", ""},
                              {"play/.t.metadir/metadata", "original filename=m\n"}});
        if (place == "play/ARCHIVE/m")
            fs::create_directory(main_path + "/play/ARCHIVE");
        plant(tree, kind, place);
        alarm(30); // no pass waits
        for (int pass = 0; pass < 3; ++pass)
            check_watch_entries();
        alarm(0);
        std::multiset<std::string> contents;
        for (const auto &[name, content] : tree_of(main_path))
            contents.insert(content);
        EXPECT_EQ(contents.count("media"), 1U);
        EXPECT_TRUE(contents.count("old") == 1 || place == places[0]);
        EXPECT_TRUE(contents.count("canary") == 0 || kind.name == std::string("HardLink"));
    }
}

const bool registered = register_rows("Planted", kinds, check_kind);

} // namespace

TEST(Planted, RandomSwapsUnderPasses) {
    const char *wanted = getenv("PLANTED_SWAPS");
    const long swaps = wanted == nullptr ? 2000 : strtol(wanted, nullptr, 10);
    const storage tree;
    const pid_t writer = fork();
    if (writer == 0) {
        std::mt19937 dice(1);
        for (long i = 0; i < swaps; ++i) {
            write_file(main_path + "/in/" + std::to_string(i % 3), "media");
            plant(tree, kinds[dice() % std::size(kinds)], places[dice() % std::size(places)]);
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
    std::cout << passes << " passes under " << swaps << " swaps\n";
}
