#include "platform/include/procfs.h"
#include "tests/support.h"

#include <gtest/gtest.h>

#include <future>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <thread>

namespace {

void hold_mapped(const char *file) {
    (void)mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, unique_fd(open(file, O_RDONLY)).get(), 0);
}
void hold_in_thread(const char *file) {
    std::promise<void> held;
    std::thread([&held, file] {
        unshare(CLONE_FILES);
        close_range(3, ~0U, 0);
        open(file, O_RDONLY);
        held.set_value();
        pause();
    }).detach();
    held.get_future().wait();
}

const struct {
    const char *name;
    void (*hold)(const char *file);
    int expected;
} ways[] = {
    {"read", [](const char *file) { open(file, O_RDONLY | O_CLOEXEC); }, 1},
    {"written", [](const char *file) { open(file, O_WRONLY | O_CLOEXEC); }, 1},
    {"running", [](const char *file) { execl(file, "sleep", "1000", nullptr); }, 1},
    {"mapped with its descriptor closed", hold_mapped, 1},
    {"in a thread with descriptors of its own", hold_in_thread, 1},
    {"O_PATH", [](const char *file) { open(file, O_PATH | O_CLOEXEC); }, 0},
};

// The answer; -2 where it names another process.
int in_use(const std::string &file, pid_t process) {
    procfs_path_in_use_info info{-1};
    const int result = procfs_path_in_use(file.c_str(), &info, 1, 0);
    return info.pid == process ? result : -2;
}

bool walk_notices(const char *file) {
    prctl(PR_SET_DUMPABLE, 1); // or a change of user would hide the child
    const child_process holder([file] { hold_mapped(file); });
    return in_use(file, holder.pid) == 1;
}

} // namespace

TEST(InUse, TheLeaseAndTheWalkSeeEveryWayToHoldAFileButTheServicesOwn) {
    for (const auto &way : ways) {
        SCOPED_TRACE(way.name);
        const temporary_tree tree;
        const std::string file = tree / "file", hard = tree / "hard", soft = tree / "soft";
        fs::copy_file("/bin/sleep", file);
        fs::create_hard_link(file, hard);
        fs::create_symlink(file, soft);
        unique_fd own;
        {
            const child_process holder([&] { way.hold(hard.c_str()); });
            EXPECT_EQ(in_use(soft, 0), way.expected) << "asked for a lease";
            own.reset(open(file.c_str(), O_RDONLY | O_CLOEXEC)); // the kernel counts it as well
            EXPECT_EQ(in_use(soft, way.expected * holder.pid), way.expected) << "walked";
        }
        EXPECT_EQ(in_use(soft, 0), 0);
    }
    EXPECT_EQ(in_use("/no/file", 0), 0);
    EXPECT_EQ(in_use(std::string(300, 'n'), 0), 0) << "cannot exist";
}

TEST(InUse, AnOpenerThatBreaksTheLeaseEndsNothing) {
    const temporary_tree tree;
    const std::string file = tree / "file";
    write_file(file, "");
    const child_process opener([&] {
        std::thread([file] {
            while (true)
                close(open(file.c_str(), O_RDONLY | O_CLOEXEC));
        }).detach();
    });
    for (int leases = 0; leases < 20000;)
        leases += in_use(file, 0) == 0 ? 1 : 0;
}

TEST(InUseDeathTest, WhereTheKernelDoesNotAnswerTheWalkDecidesAndReportsOnceThatItIsBlind) {
    if (geteuid() != 0)
        GTEST_SKIP() << "mounts and changes its user";
    const auto ask = [] {
        if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0 ||
            mount("", "/mnt", "tmpfs", 0, "") != 0)
            return false;
        write_file("/mnt/lower/file", "");
        write_file("/mnt/other/file", "");
        mount("", "/mnt/lower", "overlay", 0, "lowerdir=/mnt/lower:/mnt/other");
        return walk_notices("/mnt/lower/file") && setuid(1) == 0 && walk_notices("/etc/passwd") &&
               walk_notices("/etc/group");
    };
    testing::GTEST_FLAG(death_test_style) = "threadsafe"; // a process that has reported nothing
    EXPECT_EXIT(exit(ask() ? 0 : 1), testing::ExitedWithCode(0),
                "^Warning: a file in use may not be noticed, [^\n]* 1, Permission denied\n$");
}
