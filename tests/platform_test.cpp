// The platform layer: is a file in use, does anybody serve a socket? Other processes hold files in
// every way there is.
#include "platform/include/procfs.h"
#include "platform/processes/proc_tables.h"
#include "tests/support.h"

#include <linux/netlink.h>
#include <linux/unix_diag.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

std::optional<ChildProcess> short_holder;
bool openings_sleep = false;

// Between two tries to take a lease.
extern "C" int nanosleep(const timespec *, timespec *) {
    EXPECT_TRUE(openings_sleep) << "waited for nothing";
    short_holder.reset();
    return 0;
}

extern "C" int getrusage(int, rusage *usage) noexcept {
    static long calls = 0;
    usage->ru_nvcsw = openings_sleep ? ++calls : 0;
    return 0;
}

int tables_left = 1000; // of the process file system that can be opened

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

using Answer = std::pair<int, pid_t>;

Answer ask(const std::string &file, unsigned int flags = 0) {
    procfs_path_in_use_info info{-1};
    const int result = procfs_path_in_use(file.c_str(), &info, 1, flags);
    return {result, info.pid};
}

void open_it(const char *file) {
    fcntl(UniqueFd(open(file, O_WRONLY)).get(), F_DUPFD_CLOEXEC, 100);
}

void map_it(const char *file) {
    (void)mmap(nullptr, 1, PROT_READ, MAP_PRIVATE, UniqueFd(open(file, O_RDONLY)).get(), 0);
}

// Another thread holds the file. The parent is told when the first thread has ended.
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
    EXPECT_EQ(ask("soft").first, way.is_use);
    EXPECT_EQ(ask("soft", PROCFS_FIND_HOLDER), Answer(way.is_use, way.is_use * holder->pid));
    EXPECT_EQ(ask("/proc/self/cwd/soft").first, 0) << "through a magic link";
    const UniqueFd own(open("hard", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(ask("soft").first, way.is_use) << "where the service has it open too";
    holder.reset();
    EXPECT_EQ(ask("soft"), Answer(0, 0)) << "where only the service has it open";
}

const bool registered = register_rows("InUse", ways, expect_answers);

// The type of a socket, and whether it is served. It is bound by a relative path, whose file and
// folder have other names by now.
TEST(SocketServer, ListensOrHasADatagramSocket) {
    for (const auto &row :
         {std::pair(SOCK_STREAM, true), {SOCK_DGRAM, true}, {SOCK_STREAM, false}}) {
        const TemporaryTree tree{{"folder/", ""}};
        const ChildProcess server([&] {
            const int fd = bound_socket("folder/socket", row.first).release();
            if (row.second)
                listen(fd, 1); // fails for datagrams, which need none
            fs::rename("folder/socket", "folder/renamed");
            fs::rename("folder", "moved");
        });
        EXPECT_EQ(get_socket_server_pid("moved/renamed", 0), row.second ? server.pid : -1);
        EXPECT_EQ(get_socket_server_pid("/proc/self/cwd/moved/renamed", 0), -1) << "a magic link";
        first_list_is_empty = true;
        EXPECT_EQ(get_socket_server_pid("moved/renamed", 0) != -1, row.second);
    }
}

// Of what cannot be mapped no mappings are read, only the list of mounts.
TEST(Shortage, OfMemoryForTheListOfMountsCountsAsServedAndAsInUse) {
    const TemporaryTree tree;
    for (const int left : {1, 0}) {
        tables_left = left;
        EXPECT_EQ(ask("."), Answer(1 - left, 0));
    }
    EXPECT_EQ(get_socket_server_pid(".", SOCKET_SERVER_NO_PID), 0);
    tables_left = 1000;
}

TEST(InUse, NotWhereAPathLeadsToNoFile) {
    for (const std::string &path : {std::string("/etc/passwd/x"), std::string(300, 'n')})
        EXPECT_EQ(ask(path), Answer(0, 0)) << path;
    EXPECT_EQ(ask(std::string(5000, '/') + "etc/passwd").first, 1) << "too long to be asked about";
}

TEST(InUse, NotWhenAScannerHasLetGo) {
    const TemporaryTree tree{{"file", ""}};
    short_holder.emplace([] { open_it("file"); });
    EXPECT_EQ(ask("file").first, 1) << "the opening did not wait for a scanner";
    openings_sleep = true;
    EXPECT_EQ(ask("file").first, 0);
}

TEST(InUse, AnOpenerThatBreaksTheLeaseEndsNothing) {
    const TemporaryTree tree{{"file", ""}};
    const ChildProcess opener([] {}, [] { close(open("file", O_RDONLY | O_CLOEXEC)); });
    for (int leases = 0; leases < 20000;)
        leases += 1 - ask("file").first;
}

// Before Linux 6.6 the kernel lists the file below an overlay, which is on another device.
TEST(ProcTables, MappingsOnAnOverlayAreTheFilesByInode) {
    for (const bool is_on_overlay : {true, false}) {
        char line[] = "7f-80 r--p 00 fe:1b 4711    /a\n";
        const UniqueFile table(fmemopen(line, sizeof(line) - 1, "r"));
        EXPECT_EQ(maps_file(table.get(), {0xfe1a, 4711}, is_on_overlay), is_on_overlay);
    }
}
