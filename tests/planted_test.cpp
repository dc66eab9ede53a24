// Everything that can be planted where a pass looks: it neither waits nor leaves the main storage,
// and nothing is lost. PLANTED_SWAPS in the environment is the number of random swaps under passes.
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <atomic>
#include <cstring>
#include <gtest/gtest.h>
#include <iostream>
#include <random>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

struct planted_kind {
    const char *name;
    void (*plant)(const fs::path &at, const fs::path &canary);
};
const planted_kind kinds[] = {
    {"LinkToFile", [](auto &at, auto &canary) { fs::create_symlink(canary / "metadata", at); }},
    {"LinkToFolder", [](auto &at, auto &canary) { fs::create_symlink(canary, at); }},
    {"LinkToNothing", [](auto &at, auto &canary) { fs::create_symlink(canary / "new", at); }},
    {"LinkToItself", [](auto &at, auto &) { fs::create_symlink(at.filename(), at); }},
    {"HardLink", [](auto &at, auto &canary) { fs::create_hard_link(canary / "metadata", at); }},
    {"Fifo", [](auto &at, auto &) { mkfifo(at.c_str(), 0666); }},
    {"Socket", [](auto &at, auto &) { mknod(at.c_str(), S_IFSOCK | 0666, 0); }},
    {"Device", [](auto &at, auto &) { mknod(at.c_str(), S_IFCHR, makedev(5, 0)); }},
    {"Directory", [](auto &at, auto &) { fs::create_directory(at); }},
    {"FullDirectory", [](auto &at, auto &) { write_file(at / "inside", "planted"); }},
    {"StrangeBytes",
     [](auto &at, auto &) {
         write_file(at, {"\0=\n%s=%n", 8});
     }},
    {"FileWithoutRights",
     [](auto &at, auto &) {
         write_file(at, "");
         chmod(at.c_str(), 0);
     }},
    {"BigFile",
     [](auto &at, auto &) {
         write_file(at, "");
         fs::resize_file(at, 9 << 20);
     }},
};
const std::pair<const char *, const char *> places[] = {
    {"Target", "target/t"},
    {"TargetMetadir", "target/.t.metadir"},
    {"TargetMetadata", "target/.t.metadir/metadata"},
    {"Marker", "target/.t.metadir/.media.item.active.socket"},
    {"Archive", "target/ARCHIVE"},
    {"ArchivedNamesake", "target/ARCHIVE/old.mxf"},
    {"OtherFile", "watch/b.mxf"},
    {"Metadir", "watch/.a.mxf.metadir"},
    {"Metadata", "watch/.a.mxf.metadir/metadata"},
    {"Temporary", "watch/.a.mxf.metadir/.metadata.new"},
};

// A link at ARCHIVE is followed: who can put it there may write beside the target.
bool is_followed(const planted_kind &kind, const std::string &place) {
    return place == "target/ARCHIVE" && strcmp(kind.name, "LinkToFolder") == 0;
}

struct storage : temporary_tree {
    storage() {
        write_file(root / "canary/metadata", "canary");
        fs::create_directories(root / "main/target/.t.metadir");
        fs::create_directories(root / "main/watch");
        main_path = realpath_string(root / "main");
        configuration.clear();
        WatchEntry &entry = configuration["event"];
        entry.name = "event";
        entry.watch_path = main_path + "/watch";
        entry.target_file = main_path + "/target/t";
        entry.patterns.emplace_back("mxf$");
    }
    std::string canary() const {
        const fs::path file = root / "canary/metadata";
        return tree_of(root / "canary") +
               std::to_string(fs::last_write_time(file).time_since_epoch().count());
    }
};

class Planted : public testing::TestWithParam<std::tuple<planted_kind, size_t>> {};

TEST_P(Planted, IsNeitherFollowedNorWaitedFor) {
    const storage tree;
    const auto &[kind, place] = GetParam();
    const fs::path at = tree / "main" / places[place].second;
    if (is_followed(kind, places[place].second))
        return;
    write_file(tree / "main/watch/a.mxf", "media");
    if (at.filename() != "t")
        write_file(tree / "main/target/t", "old media");
    if (at.filename() == "old.mxf")
        write_file(tree / "main/target/.t.metadir/metadata", "original filename=old.mxf\n");
    fs::create_directories(at.parent_path());
    if (fs::is_directory(at))
        fs::remove(at);
    kind.plant(at, tree / "canary");
    const std::string before = tree.canary();
    alarm(30); // no pass waits
    for (int pass = 0; pass < 3; ++pass)
        check_watch_entries();
    alarm(0);
    const std::string left = tree_of(tree / "main");
    EXPECT_TRUE(tree.canary() == before);
    EXPECT_TRUE(left.find("=canary") == std::string::npos || strcmp(kind.name, "HardLink") == 0);
    EXPECT_NE(left.find("=media\n"), std::string::npos) << left;
    EXPECT_TRUE(at.filename() == "t" || left.find("=old media\n") != std::string::npos) << left;
}

INSTANTIATE_TEST_SUITE_P(All, Planted,
                         testing::Combine(testing::ValuesIn(kinds),
                                          testing::Range<size_t>(0, std::size(places))),
                         [](const auto &row) {
                             return std::get<0>(row.param).name +
                                    std::string(places[std::get<1>(row.param)].first);
                         });

TEST(PlantedSwaps, LeaveTheCanaryUnchanged) {
    const char *wanted = getenv("PLANTED_SWAPS");
    const long swaps = wanted == nullptr ? 2000 : strtol(wanted, nullptr, 10);
    const storage tree;
    const std::string before = tree.canary(), fresh = tree / "fresh";
    auto &passes = *static_cast<std::atomic<long> *>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t service = fork();
    if (service == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
        for (;; ++passes)
            check_watch_entries();
    }
    std::mt19937 dice(1);
    for (long i = 0; i < swaps; ++i) {
        const planted_kind &kind = kinds[dice() % std::size(kinds)];
        const fs::path place = places[dice() % std::size(places)].second;
        write_file(tree / "main/watch" / ("clip" + std::to_string(i % 3) + ".mxf"), "media");
        // The swaps themselves must not reach the canary through what was planted before.
        const unique_fd parent(open((tree / "main" / place).parent_path().c_str(),
                                    O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!parent || is_followed(kind, place))
            continue;
        kind.plant(fresh, tree / "canary");
        const std::string name = place.filename();
        if (renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), RENAME_EXCHANGE) != 0)
            renameat2(AT_FDCWD, fresh.c_str(), parent.get(), name.c_str(), 0);
        std::error_code failed; // the service may still be at work in there
        do
            fs::remove_all(fresh, failed);
        while (failed);
    }
    const long seen = passes;
    for (int wait = 0; wait < 200 && passes <= seen + 1; ++wait)
        usleep(50000);
    EXPECT_GT(passes, seen + 1) << "the process ended or waits";
    kill(service, SIGKILL);
    waitpid(service, nullptr, 0);
    EXPECT_TRUE(tree.canary() == before);
    std::cout << passes << " passes under " << swaps << " swaps\n";
}

} // namespace
