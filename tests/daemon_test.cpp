// Runs of the real executable. The whole program lives in a mount namespace of its own, in which
// /mnt, /etc, /run and /dev are empty: nothing of the machine is read or touched.
#include "tests/support.h"

#include <chrono>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

constexpr char config_path[] = "/etc/vel4_watch_folder.toml";
constexpr char service_path[] = "/run/service"; // a copy: the lock of another run must not count
constexpr char pid_path[] = "/run/vel4_watch_folder_service.pid";

bool mount_empty(const char *path) {
    return mount("none", path, "tmpfs", 0, nullptr) == 0;
}

// An ordinary user gets the namespace by way of a user namespace.
bool enter_namespace() {
    const uid_t uid = getuid();
    const gid_t gid = getgid();
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
        write_file("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1");
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 || !mount_empty("/mnt"))
        return false;
    // /dev keeps its null device.
    write_file("/mnt/null", "");
    return mount("/dev/null", "/mnt/null", nullptr, MS_BIND, nullptr) == 0 &&
           mount("/mnt", "/dev", nullptr, MS_MOVE, nullptr) == 0 && mount_empty("/mnt") &&
           mount_empty("/etc") && mount_empty("/run");
}

const bool has_namespace = enter_namespace();

// A run of the daemon, with the signals blocked that a careless parent leaves blocked.
class daemon_process {
public:
    explicit daemon_process(std::vector<std::string> arguments) {
        int out_pipe[2], error_pipe[2];
        if (pipe(out_pipe) != 0 || pipe(error_pipe) != 0)
            abort();
        arguments.insert(arguments.begin(), service_path);
        std::vector<char *> argv;
        for (std::string &argument : arguments)
            argv.push_back(argument.data());
        argv.push_back(nullptr);
        pid = fork();
        if (pid == 0) {
            dup2(open("/dev/null", O_RDONLY), 0);
            dup2(out_pipe[1], 1);
            dup2(error_pipe[1], 2);
            closefrom(3);
            sigset_t all;
            sigfillset(&all);
            sigdelset(&all, SIGPIPE); // blocked, it could not show that it is ignored
            sigprocmask(SIG_BLOCK, &all, nullptr);
            execv(argv[0], argv.data());
            abort();
        }
        close(out_pipe[1]);
        close(error_pipe[1]);
        out_.reset(out_pipe[0]);
        error_.reset(error_pipe[0]);
    }
    daemon_process(const daemon_process &) = delete;
    daemon_process &operator=(const daemon_process &) = delete;
    ~daemon_process() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    // Reads standard error until the text has come, the daemon has ended or 30 seconds have passed.
    bool wait_for(const std::string &text) {
        pollfd ready{error_.get(), POLLIN, 0};
        while (error.find(text) == std::string::npos && poll(&ready, 1, 30000) > 0)
            if (!read_more(error_, error))
                return false;
        return error.find(text) != std::string::npos;
    }

    void stop_reading() { error_.reset(); }

    // The exit status, once everything that it wrote is in `out` and `error`.
    int finish() {
        while (read_more(error_, error) || read_more(out_, out)) {
        }
        int status = -1;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    }

    pid_t pid = -1;
    std::string out, error;

private:
    static bool read_more(const unique_fd &from, std::string &text) {
        char piece[4096];
        const ssize_t size = read(from.get(), piece, sizeof(piece));
        text.append(piece, size > 0 ? static_cast<size_t>(size) : 0);
        return size > 0;
    }
    unique_fd out_, error_;
};

class Daemon : public testing::Test {
protected:
    void SetUp() override {
        if (!has_namespace)
            GTEST_SKIP() << "no private mount namespace to be had here";
        for (const char *path : {"/mnt", "/etc", "/run"})
            for (const auto &item : fs::directory_iterator(path))
                fs::remove_all(item.path());
        fs::remove("/dev/log");
        fs::copy_file(DAEMON, service_path);
        fs::create_directory("/mnt/storage");
        fs::create_directory_symlink("storage", "/mnt/main");
        sockaddr_un address{AF_UNIX, "/dev/log"};
        log_.reset(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_EQ(bind(log_.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    }

    // The records so far as "<priority>identity[PID]: text", without their time.
    std::string log_records(pid_t pid) const {
        std::string records;
        char record[512];
        for (ssize_t size = 0;
             (size = recv(log_.get(), record, sizeof(record), MSG_DONTWAIT)) > 0;) {
            std::string text(record, static_cast<size_t>(size));
            text.erase(text.find('>') + 1, sizeof("Jan 31 15:45:02 ") - 1);
            const std::string number = std::to_string(pid);
            if (const size_t at = text.find(number); at != std::string::npos)
                text.replace(at, number.size(), "PID");
            records += text + "\n";
        }
        return records;
    }

private:
    unique_fd log_;
};

std::string entry_of(const std::string &section, const std::string &target) {
    return "[" + section + "]\n\"watch path\"='/mnt/main/" + section +
           "'\n\"match pattern\"='wav$'\n\"target file\"='" + target + "'\n";
}

// A descriptor list as a normal stop prints it.
std::string dump_of(const daemon_process &daemon) {
    const size_t at = daemon.error.find("fd 0: ");
    return at == std::string::npos ? "" : daemon.error.substr(at);
}

constexpr char starting[] =
    "<30>vel4_watch_folder_service[PID]: Velora watch folder service is starting normally\n";
constexpr char reloading[] = "<29>vel4_watch_folder_service[PID]: Velora watch folder service "
                             "received SIGHUP, reloading configuration\n";
constexpr char stopping[] =
    "<30>vel4_watch_folder_service[PID]: Velora watch folder service is stopping normally\n";

} // namespace

TEST_F(Daemon, EndsAtOnceWhereItCannotStart) {
    const std::string good = entry_of("event", "/mnt/main/t");
    const struct {
        const char *why;
        std::vector<std::string> arguments;
        std::string configuration; // "-": none, "->": a link to a good one
        std::string out, error;
        int status;
    } rows[] = {
        {"usage error", {"x"}, good, "", "Error in command line: Unrecognized token: x\n", 1},
        {"no file", {"-d", ""}, "-", "watching \n", "No configuration path, exiting\n", 0},
        {"a link", {}, "->", "watching \n", "No configuration path, exiting\n", 0},
        {"bad file",
         {},
         "[",
         "watching \n",
         std::string(config_path) + ": TOML parse error: Unexpected end of table at line 1\n" +
             "Failed to load configuration.\n",
         1},
        {"no entry", {}, "x=1\n", "watching \n", "Nothing to watch.\n", 1},
        {"no tree",
         {"--directory=/mnt/x"},
         "-",
         "watching /mnt/x\n",
         "Warning: cannot list '/mnt/x/Upload/', No such file or directory\nNothing to watch.\n",
         1},
        {"PID file",
         {},
         good,
         "watching \n",
         "Added section 'event'\nUnable to write PID file /var" + std::string(pid_path) + "\n",
         1},
    };
    fs::create_directory(pid_path); // so that it cannot be written
    write_file("/etc/good.toml", good);
    for (const auto &row : rows) {
        fs::remove(config_path);
        if (row.configuration == "->")
            fs::create_symlink("good.toml", config_path);
        else if (row.configuration != "-")
            write_file(config_path, row.configuration);
        daemon_process daemon(row.arguments);
        EXPECT_EQ(daemon.finish(), row.status) << row.why;
        EXPECT_EQ(daemon.out, row.out) << row.why;
        EXPECT_EQ(daemon.error, row.error) << row.why;
        EXPECT_EQ(log_records(daemon.pid), "") << row.why;
    }
    daemon_process unread({"-d", "/mnt/x"});
    unread.stop_reading(); // a reader who has gone is no reason to die of a signal
    EXPECT_EQ(unread.finish(), 1);
}

TEST_F(Daemon, RunsFromTheConfigurationFileUntilItIsStopped) {
    write_file(config_path, entry_of("event1", "/mnt/main/play/t.wav") + "[[event]]\n");
    write_file(pid_path, "a stale and longer text");
    write_file("/mnt/main/play/t.wav", "old");
    write_file("/mnt/main/event1/new.wav", "new");
    daemon_process daemon({});
    const std::string number = std::to_string(daemon.pid);
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    EXPECT_EQ(read_file(pid_path), number + "\n");
    daemon_process second({"-d", "/mnt/main"});
    EXPECT_EQ(second.finish(), 1);
    EXPECT_EQ(second.error, "This service is already running.\n");

    write_file(config_path, entry_of("event2", "/mnt/main/t"));
    kill(daemon.pid, SIGHUP);
    ASSERT_TRUE(daemon.wait_for("Added section 'event2'\n")) << daemon.error;
    kill(daemon.pid, SIGTERM);
    EXPECT_EQ(daemon.finish(), 0);
    EXPECT_EQ(daemon.out, "watching \n");
    const std::string dump = dump_of(daemon);
    EXPECT_NE(dump.find("fd 3: " + std::string(service_path) + "\n"), std::string::npos) << dump;
    EXPECT_EQ(std::count(dump.begin(), dump.end(), '\n'), 4) << dump;
    const size_t archived = daemon.error.find("Existing file moved");
    EXPECT_EQ(daemon.error.substr(archived),
              "Existing file moved into ARCHIVE directory.\nalready=0\n"
              "Reloading config, SIGHUP\nAdded section 'event2'\n" +
                  dump);
    const std::string pass =
        "Checking... (main='/mnt/storage')\n"
        "Checking 'event1' in '/mnt/main/event1'\n"
        "  if new entries replace '/mnt/main/play/t.wav'\n"
        "watch realpath: /mnt/storage/event1\ntarget realpath: /mnt/storage/play\n"
        "Checking found file 'new.wav' to replace '/mnt/main/play/t.wav'\n"
        "Target meta load fail from old file\nOriginal filename: ''\n";
    EXPECT_EQ(daemon.error.substr(archived - pass.size(), pass.size()), pass);
    EXPECT_EQ(log_records(std::stoi(number)), std::string(starting) + reloading + stopping);
    EXPECT_FALSE(fs::exists(pid_path));
    EXPECT_EQ(read_file("/mnt/main/play/t.wav"), "new");
    EXPECT_EQ(read_file("/mnt/main/play/.t.wav.metadir/metadata"), "original filename=new.wav\n");
}

TEST_F(Daemon, WorksOnAFolderTree) {
    write_file("/mnt/main/Upload/A/one", "1");
    write_file("/mnt/main/Upload/B/two", "2");
    write_file(pid_path, "stale");
    const child_process writer([] { open("/mnt/main/Upload/B/two", O_WRONLY | O_CLOEXEC); });
    daemon_process daemon({"-d", "/mnt/main"});
    const pid_t pid = daemon.pid;
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    ASSERT_TRUE(daemon.wait_for("in use")) << daemon.error;
    daemon.stop_reading(); // the list of descriptors goes to nobody, which ends nothing
    kill(pid, SIGQUIT);
    EXPECT_EQ(daemon.finish(), 0);
    EXPECT_EQ(daemon.out, "watching /mnt/main\n");
    EXPECT_NE(daemon.error.find("File source '/mnt/main/Upload/B/two' is in use, not acting\n"),
              std::string::npos)
        << daemon.error;
    EXPECT_EQ(log_records(pid), std::string(starting) + stopping);
    EXPECT_EQ(read_file(pid_path), "stale");
    EXPECT_EQ(tree_of("/mnt/main"), "Play/.A.metadir/metadata=original filename=one\n\nPlay/A=1\n"
                                    "Play/ARCHIVE/\nUpload/A/\nUpload/B/two=2\n");
}
