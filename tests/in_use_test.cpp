// Is a file in use, does anybody serve a socket? Other processes hold files in every way there is.
#include "platform/include/procfs.h"
#include "tests/support.h"

#include <future>
#include <optional>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

namespace {

std::optional<child_process> short_holder;
int lease_waits;

} // namespace

// Between two tries to take a lease.
extern "C" int nanosleep(const timespec *, timespec *) {
    ++lease_waits;
    short_holder.reset();
    return 0;
}

namespace {

using answer = std::pair<int, pid_t>;

answer ask(const std::string &file, unsigned int flags = 0) {
    procfs_path_in_use_info info{-1};
    const int result = procfs_path_in_use(file.c_str(), &info, 1, flags);
    return {result, info.pid};
}

void open_it(const char *file) {
    open(file, O_RDONLY | O_CLOEXEC);
}

void map_and_close(const char *file) {
    (void)mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, unique_fd(open(file, O_RDONLY)).get(), 0);
}

void open_in_thread(const char *file) {
    std::promise<void> held;
    std::thread([&held, file] {
        unshare(CLONE_FILES);
        close_range(3, ~0U, 0);
        open_it(file);
        held.set_value();
        pause();
    }).detach();
    held.get_future().wait();
}

// The first thread ends before another lets go of what the parent waits for.
void map_and_outlive_first_thread(const char *file) {
    std::thread([file] {
        map_and_close(file);
        char program[8];
        while (readlink("/proc/self/exe", program, sizeof(program)) > 0)
            sched_yield();
        close_range(3, 99, 0);
        pause();
    }).detach();
    syscall(SYS_exit, 0);
}

const struct way_to_hold {
    const char *name;
    void (*hold)(const char *file);
    int is_use = 1;
} ways[] = {
    {"Open", open_it},
    {"MappedAndClosed", map_and_close},
    {"Executing", [](const char *file) { execl(file, "sleep", "1000", nullptr); }},
    {"OpenInAThreadOfItsOwn", open_in_thread},
    {"MappedAfterTheFirstThread", map_and_outlive_first_thread},
    {"OnlyAsAPath", [](const char *file) { open(file, O_PATH | O_CLOEXEC); }, 0},
};

// The file is held by one of its names and asked about by a link to the other.
void expect_answers(const way_to_hold &way, const fs::path &folder) {
    const temporary_tree tree(folder);
    const std::string hard = tree / "hard", soft = tree / "soft";
    fs::copy_file("/bin/sleep", tree / "file");
    fs::create_hard_link(tree / "file", hard);
    fs::create_symlink("file", soft);
    unique_fd own;
    {
        const child_process holder([&] { way.hold(hard.c_str()); });
        EXPECT_EQ(ask(soft).first, way.is_use);
        EXPECT_EQ(ask(soft, PROCFS_FIND_HOLDER), answer(way.is_use, way.is_use * holder.pid));
        own.reset(open(hard.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_EQ(ask(soft).first, way.is_use) << "where the service has it open too";
    }
    EXPECT_EQ(ask(soft), answer(0, 0)) << "where only the service has it open";
    own.reset();
    EXPECT_EQ(ask(soft), answer(0, 0)) << "where nobody has";
}

void expect_answers_on_overlay(const way_to_hold &way) {
    if (!mount_empty("/mnt"))
        GTEST_SKIP() << "no private mount namespace to be had here";
    make_tree("/mnt", {{"lower/x", ""}, {"upper/x", ""}, {"work/", ""}, {"merged/x", ""}});
    if (mount("none", "/mnt/merged", "overlay", 0,
              "lowerdir=/mnt/lower,upperdir=/mnt/upper,workdir=/mnt/work") != 0)
        GTEST_SKIP() << "no overlay can be mounted here";
    expect_answers(way, "/mnt/merged");
}

const struct socket_kind {
    const char *name;
    int type;
    bool listens, is_served;
} socket_kinds[] = {
    {"Listening", SOCK_STREAM, true, true},
    {"Datagram", SOCK_DGRAM, false, true},
    {"NotListening", SOCK_STREAM, false, false},
};

// Bound by a relative path, whose file and folder have other names by now.
void expect_server(const socket_kind &kind) {
    const temporary_tree tree;
    const std::string path = tree / "moved/renamed";
    fs::create_directory(tree / "folder");
    {
        const child_process server([&] {
            fs::current_path(tree.root);
            unique_fd fd = bound_socket("folder/socket", kind.type);
            if (kind.listens)
                listen(fd.get(), 1);
            fd.release();
            fs::rename("folder/socket", "folder/renamed");
            fs::rename("folder", "moved");
        });
        EXPECT_EQ(get_socket_server_pid(path.c_str(), 0), kind.is_served ? server.pid : -1);
        EXPECT_EQ(get_socket_server_pid(path.c_str(), SOCKET_SERVER_NO_PID),
                  kind.is_served ? 0 : -1);
    }
    EXPECT_EQ(get_socket_server_pid(path.c_str(), 0), -1) << "the server has ended";
}

const bool registered =
    register_rows("InUse", ways,
                  [](const auto &way) { expect_answers(way, fs::temp_directory_path()); }) &&
    register_rows("InUseOnOverlay", ways, expect_answers_on_overlay) &&
    register_rows("SocketServer", socket_kinds, expect_server);

} // namespace

TEST(InUse, NotWhereAPathLeadsToNoFile) {
    for (const std::string &path :
         {std::string("/no/file"), std::string("/etc/passwd/x"), std::string(300, 'n')})
        EXPECT_EQ(ask(path), answer(0, 0)) << path;
    EXPECT_EQ(ask(std::string(5000, '/') + "etc/passwd").first, 1) << "too long to be asked about";
}

TEST(InUse, WhatCannotBeToldIsInUse) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    setrlimit(RLIMIT_NOFILE, std::array{rlimit{0, before.rlim_max}}.data());
    const answer told = ask("/etc/passwd");
    const int server = get_socket_server_pid("/etc/passwd", 0);
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(told, answer(1, 0));
    EXPECT_EQ(server, 0);
}

TEST(InUse, NotWhenAScannerHasLetGo) {
    const temporary_tree tree;
    const std::string file = tree / "file";
    write_file(file, "");
    for (const bool lets_go : {true, false}) {
        const child_process stays([&] { open_it(lets_go ? "/" : file.c_str()); });
        short_holder.emplace([&] { open_it(file.c_str()); });
        lease_waits = 0;
        EXPECT_EQ(ask(file).first, lets_go ? 0 : 1);
        EXPECT_EQ(lease_waits, lets_go ? 1 : 2);
    }
}

TEST(InUse, AnOpenerThatBreaksTheLeaseEndsNothing) {
    const temporary_tree tree;
    write_file(tree / "file", "");
    const child_process opener([&] {
        std::thread([&] {
            while (true)
                close(open((tree / "file").c_str(), O_RDONLY | O_CLOEXEC));
        }).detach();
    });
    for (int leases = 0; leases < 20000;)
        leases += 1 - ask(tree / "file").first;
}

// Only the owner of a file may have a lease on it.
TEST(InUseDeathTest, TheWalkAnswersForALeaseAndReportsOnceThatItIsBlind) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe"; // a process that has reported nothing
    const auto ask_as_another_user = [] {
        const bool is_another = geteuid() != 0 || setuid(1) == 0;
        prctl(PR_SET_DUMPABLE, 1); // or the change of user would hide the child
        const child_process holder([] { map_and_close("/etc/passwd"); });
        const bool noticed = ask("/etc/passwd") == answer(1, holder.pid);
        return is_another && noticed && ask("/etc/group") == answer(0, 0);
    };
    EXPECT_EXIT(exit(ask_as_another_user() ? 0 : 1), testing::ExitedWithCode(0),
                "^Warning: a file in use may not be noticed, cannot look into process 1, "
                "Permission denied\n$");
}
