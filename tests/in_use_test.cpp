// Is a file in use, does anybody serve a socket? Other processes hold files in every way there is.
#include "platform/include/procfs.h"
#include "tests/private_mounts.h"
#include "tests/rows.h"
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
extern "C" int nanosleep(const timespec * /*duration*/, timespec * /*left*/) {
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

void map_and_close(const char *file) {
    (void)mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, unique_fd(open(file, O_RDONLY)).get(), 0);
}

void open_in_thread(const char *file) {
    std::promise<void> held;
    std::thread([&held, file] {
        unshare(CLONE_FILES);
        close_range(3, ~0U, 0);
        open(file, O_RDONLY | O_CLOEXEC);
        held.set_value();
        pause();
    }).detach();
    held.get_future().wait();
}

// The first thread ends before another lets go of what the parent waits for.
template<void (*hold)(const char *)> void outlive_first_thread(const char *file) {
    std::thread([file] {
        hold(file);
        char program[8];
        while (readlink("/proc/self/exe", program, sizeof(program)) > 0)
            sched_yield();
        close_range(3, 99, 0);
        pause();
    }).detach();
    syscall(SYS_exit, 0);
}

void open_at_100(const char *file) {
    dup2(unique_fd(open(file, O_RDONLY | O_CLOEXEC)).get(), 100);
}

void take_lease(const char *file) {
    signal(SIGIO, SIG_IGN);
    fcntl(open(file, O_RDWR | O_CLOEXEC), F_SETLEASE, F_WRLCK);
}

bool mount_overlay() {
    static const bool mounted = [] {
        if (!mount_empty("/mnt"))
            return false;
        for (const char *name : {"/mnt/lower", "/mnt/upper", "/mnt/work", "/mnt/merged"})
            fs::create_directory(name);
        return mount("none", "/mnt/merged", "overlay", 0,
                     "lowerdir=/mnt/lower,upperdir=/mnt/upper,workdir=/mnt/work") == 0;
    }();
    return mounted;
}

struct way_to_hold {
    const char *name;
    void (*hold)(const char *file);
    int is_use;
};
const way_to_hold ways[] = {
    {"OpenForReading", [](const char *file) { open(file, O_RDONLY | O_CLOEXEC); }, 1},
    {"OpenForWriting", [](const char *file) { open(file, O_WRONLY | O_CLOEXEC); }, 1},
    {"MappedAndClosed", map_and_close, 1},
    {"Executing", [](const char *file) { execl(file, "sleep", "1000", nullptr); }, 1},
    {"OpenInAThreadOfItsOwn", open_in_thread, 1},
    {"OpenAfterTheFirstThread", outlive_first_thread<open_at_100>, 1},
    {"MappedAfterTheFirstThread", outlive_first_thread<map_and_close>, 1},
    {"UnderALease", take_lease, 1},
    {"OnlyAsAPath", [](const char *file) { open(file, O_PATH | O_CLOEXEC); }, 0},
};

// The file is held by one of its names and asked about by a link to the other.
void expect_answers(const way_to_hold &way, const fs::path &folder) {
    const temporary_tree tree(folder);
    const std::string file = tree / "file", hard = tree / "hard", soft = tree / "soft";
    fs::copy_file("/bin/sleep", file);
    fs::create_hard_link(file, hard);
    fs::create_symlink(file, soft);
    alarm(30); // nothing waits for a holder
    unique_fd own;
    {
        const child_process holder([&] { way.hold(hard.c_str()); });
        EXPECT_EQ(ask(soft).first, way.is_use);
        EXPECT_EQ(ask(soft, PROCFS_FIND_HOLDER), answer(way.is_use, way.is_use * holder.pid));
        own.reset(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        EXPECT_EQ(ask(soft).first, way.is_use) << "where the service has it open too";
    }
    EXPECT_EQ(ask(soft), answer(0, 0)) << "where only the service has it open";
    own.reset();
    EXPECT_EQ(ask(soft), answer(0, 0)) << "where nobody has";
    alarm(0);
}

const bool registered =
    register_rows<way_to_hold>(
        "InUse", ways, [](const auto &way) { expect_answers(way, fs::temp_directory_path()); }) &&
    register_rows<way_to_hold>("InUseOnOverlay", ways, [](const auto &way) {
        if (!mount_overlay())
            GTEST_SKIP() << "no overlay can be mounted here";
        expect_answers(way, "/mnt/merged");
    });

} // namespace

TEST(InUse, NotWhereAPathLeadsToNoFile) {
    const temporary_tree tree;
    fs::create_symlink("loop", tree / "loop");
    for (const std::string &path : std::vector<std::string>{"/no/file", "/etc/passwd/x",
                                                            tree / "loop", std::string(300, 'n')})
        EXPECT_EQ(ask(path), answer(0, 0)) << path;
}

TEST(InUse, WhatCannotBeToldIsInUse) {
    rlimit before{};
    getrlimit(RLIMIT_NOFILE, &before);
    const rlimit none{0, before.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const answer told = ask("/etc/passwd");
    setrlimit(RLIMIT_NOFILE, &before);
    EXPECT_EQ(told, answer(1, 0));
}

TEST(InUse, NotWhenAScannerHasLetGo) {
    const temporary_tree tree;
    const std::string file = tree / "file";
    write_file(file, "");
    for (const bool lets_go : {true, false}) {
        const auto open_it = [&] { open(file.c_str(), O_RDONLY | O_CLOEXEC); };
        const child_process stays([&] { lets_go ? void() : void(open_it()); });
        short_holder.emplace(open_it);
        lease_waits = 0;
        EXPECT_EQ(ask(file).first, lets_go ? 0 : 1);
        EXPECT_EQ(lease_waits, lets_go ? 1 : 2);
    }
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
        leases += 1 - ask(file).first;
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

namespace {

struct socket_kind {
    const char *name;
    int type;
    bool listens, only_accepted, is_served;
};
const socket_kind kinds[] = {
    {"Listening", SOCK_STREAM, true, false, true},
    {"ListeningForPackets", SOCK_SEQPACKET, true, false, true},
    {"Datagram", SOCK_DGRAM, false, false, true},
    {"NotListening", SOCK_STREAM, false, false, false},
    {"OnlyAnAcceptedConnection", SOCK_STREAM, true, true, false},
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
            if (kind.only_accepted) {
                const sockaddr_un name{AF_UNIX, "folder/socket"};
                if (connect(socket(AF_UNIX, kind.type | SOCK_CLOEXEC, 0),
                            reinterpret_cast<const sockaddr *>(&name), sizeof(name)) != 0)
                    abort();
                fd.reset(accept4(fd.get(), nullptr, nullptr, SOCK_CLOEXEC));
            }
            fd.release();
            fs::rename("folder/socket", "folder/renamed");
            fs::rename("folder", "moved");
        });
        EXPECT_EQ(get_socket_server_pid(path.c_str(), 0), kind.is_served ? server.pid : -1);
        EXPECT_EQ(get_socket_server_pid(path.c_str(), SOCKET_SERVER_NO_PID),
                  kind.is_served ? 0 : -1);
    }
    EXPECT_TRUE(fs::is_socket(path));
    EXPECT_EQ(get_socket_server_pid(path.c_str(), 0), -1) << "the server has ended";
}

const bool sockets_registered = register_rows("SocketServer", kinds, expect_server);

} // namespace

TEST(SocketServer, NoneForWhatIsNoSocket) {
    for (const char *path : {"/no/file", "/etc/passwd", "/etc"})
        EXPECT_EQ(get_socket_server_pid(path, 0), -1) << path;
}
