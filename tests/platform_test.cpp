// The platform layer: is a file in use, does anybody serve a socket? Other
// processes hold files in every way there is.
#include "platform/include/procfs.h"
#include "tests/support.h"

#include <linux/netlink.h>
#include <linux/unix_diag.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

std::optional<ChildProcess> scanner;
bool openings_sleep = false;

// Between two tries to take a lease.
extern "C" int nanosleep(const timespec *, timespec *) {
    EXPECT_TRUE(openings_sleep) << "waited for nothing";
    scanner.reset();
    return 0;
}

extern "C" int getrusage(int, rusage *usage) noexcept {
    static long calls = 0;
    usage->ru_nvcsw = openings_sleep ? ++calls : 0;
    return 0;
}

int tables_left = 100000; // of the process file system that can be opened

extern "C" FILE *fopen(const char *path, const char *mode) {
    errno = ENOMEM;
    return tables_left-- > 0 ? fopen64(path, mode) : nullptr;
}

bool first_list_is_empty = false; // of sockets

extern "C" ssize_t send(int fd, const void *request, size_t size, int flags) {
    std::string sent(static_cast<const char *>(request), size);
    if (std::exchange(first_list_is_empty, false))
        sent.replace(NLMSG_HDRLEN + offsetof(unix_diag_req, udiag_states), 4, 4, '\0');
    return sendto(fd, sent.data(), size, flags, nullptr, 0);
}

int in_use(const std::string &file) {
    return procfs_path_in_use(file.c_str(), nullptr, 0, 0);
}

void open_it(const char *file) {
    fcntl(UniqueFd(open(file, O_WRONLY)).get(), F_DUPFD_CLOEXEC, 100);
}

void map_it(const char *file) {
    (void)mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, UniqueFd(open(file, O_RDONLY)).get(), 0);
}

// Another thread holds the file. The parent is told when the first thread has
// ended.
template<void (*hold)(const char *)> void outlive_first_thread(const char *file) {
    std::thread([file] {
        hold(file);
        while (fs::exists("/proc/self/exe"))
            sched_yield();
        close_range(3, 99, 0);
        pause();
    }).detach();
    syscall(SYS_exit, 0);
}

const struct WayToHold {
    const char *name;
    void (*hold)(const char *file);
    int is_use = 1;
} ways[] = {
    {"Open", open_it},
    {"MappedAndClosed", map_it},
    {"Executing", [](const char *file) { execl(file, "sleep", "1000", nullptr); }},
    {"OpenAfterTheFirstThread", outlive_first_thread<open_it>},
    {"MappedAfterTheFirstThread", outlive_first_thread<map_it>},
    {"OnlyAsAPath", [](const char *file) { open(file, O_PATH | O_CLOEXEC); }, 0},
};

// The file is held by one of its names and asked about by a link to the other.
void expect_answers(const WayToHold &way) {
    const TemporaryTree tree{{"soft", "-> file"}};
    fs::copy_file("/bin/sleep", "file");
    fs::create_hard_link("file", "hard");
    std::optional<ChildProcess> holder([&] { way.hold("hard"); });
    procfs_path_in_use_info info{-1};
    EXPECT_EQ(in_use("soft"), way.is_use);
    procfs_path_in_use("soft", &info, 1, PROCFS_FIND_HOLDER);
    EXPECT_EQ(info.pid, way.is_use * holder->pid);
    EXPECT_EQ(in_use("/proc/self/cwd/soft"), 0) << "through a magic link";
    const UniqueFd own(open("hard", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(in_use("soft"), way.is_use) << "where the service has it open too";
    holder.reset();
    EXPECT_EQ(in_use("soft"), 0) << "where only the service has it open";
}

const bool registered = register_rows("InUse", ways, expect_answers);

TEST(InUse, NotWhenAScannerHasLetGo) {
    const TemporaryTree tree{{"file", ""}};
    scanner.emplace([] { open_it("file"); });
    EXPECT_EQ(in_use("file"), 1) << "the opening did not wait for a scanner";
    openings_sleep = true;
    EXPECT_EQ(in_use("file"), 0);
}

TEST(InUse, AnOpenerThatBreaksTheLeaseEndsNothing) {
    const TemporaryTree tree{{"file", ""}};
    const auto open_and_close = [] {
        while (true)
            close(open("file", O_RDONLY | O_CLOEXEC));
    };
    const ChildProcess opener([&] { std::thread(open_and_close).detach(); });
    for (int leases = 0; leases < 20000;)
        leases += 1 - in_use("file");
}

// It is bound by a relative path, whose file and folder have other names by
// now.
TEST(SocketServer, ListensOrHasADatagramSocket) {
    for (const int type : {SOCK_STREAM, SOCK_DGRAM}) {
        const TemporaryTree tree{{"folder/", ""}};
        const ChildProcess server([type] {
            listen(bound_socket("folder/socket", type).release(), 1); // datagrams need none
            bound_socket("folder/idle", SOCK_STREAM).release();
            fs::rename("folder/socket", "folder/renamed");
            fs::rename("folder", "moved");
        });
        first_list_is_empty = true;
        EXPECT_EQ(get_socket_server_pid("moved/renamed", 0), server.pid);
        EXPECT_EQ(get_socket_server_pid("/proc/self/cwd/moved/renamed", 0), -1) << "a magic link";
        EXPECT_EQ(get_socket_server_pid("moved/idle", 0), -1);
    }
}

TEST(Shortage, OfMemoryForTheListOfMountsCountsAsServedAndAsInUse) {
    const TemporaryTree tree{{"file", ""}};
    const UniqueFd own(open("file", O_RDONLY | O_CLOEXEC)); // so that processes are looked at
    tables_left = 0;
    EXPECT_EQ(in_use("file"), 1);
    EXPECT_EQ(get_socket_server_pid("file", SOCKET_SERVER_NO_PID), 0);
    EXPECT_EQ(in_use("."), 0) << "no process is looked at for what is no regular file";
    EXPECT_EQ(in_use("/proc/1/maps"), 0) << "nor for the file of a process";
    EXPECT_EQ(in_use("/etc/passwd/x") + in_use(std::string(300, 'n')), 0) << "nor without a file";
    EXPECT_EQ(in_use(std::string(5000, '/') + "etc/passwd"), 1) << "too long to be asked about";
    tables_left = 100000;
}
