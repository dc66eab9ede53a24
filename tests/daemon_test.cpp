// Runs of the real executable, with /mnt, /etc, /run and /dev of its own.
#include "tests/private_mounts.h"
#include "tests/support.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <optional>
#include <regex>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

constexpr char config_path[] = "/etc/vel4_watch_folder.toml";
constexpr char pid_path[] = "/run/vel4_watch_folder_service.pid";
const std::string event = "[event]\n'watch path' = '/mnt/main/in'\n'match pattern' = 'wav$'\n"
                          "'target file' = '/mnt/main/play/t.wav'\n";
const unique_fd full_device(open("/dev/full", O_WRONLY | O_CLOEXEC)); // before /dev is covered

// Waits for what sends no event.
template<typename Condition> bool wait_until(Condition condition) {
    for (int tries = 0; tries < 10000 && !condition(); ++tries)
        usleep(1000);
    return condition();
}

// A run as a careless parent starts it, with signals blocked and standard input closed. Standard
// output is appended to /run/out. prepare() runs in the process before the executable does.
struct daemon_process {
    explicit daemon_process(
        std::vector<std::string> arguments, void (*prepare)() = [] {},
        std::string program = "/mnt/service") {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            abort();
        reader.reset(ends[0]);
        const unique_fd writer(ends[1]);
        child.emplace([&] {
            dup2(writer.get(), STDERR_FILENO);
            dup2(open("/run/out", O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644), STDOUT_FILENO);
            close(STDIN_FILENO);
            sigset_t blocked;
            sigfillset(&blocked);
            for (const int signal_number : {SIGPIPE, SIGXFSZ}) // blocked, they would end nothing
                sigdelset(&blocked, signal_number);
            sigprocmask(SIG_BLOCK, &blocked, nullptr);
            prepare();
            std::vector<char *> texts{program.data()};
            for (std::string &argument : arguments)
                texts.push_back(argument.data());
            texts.push_back(nullptr);
            closefrom(STDERR_FILENO + 1);
            execv(program.c_str(), texts.data());
            abort();
        });
    }

    bool read_more() {
        char piece[4096];
        const ssize_t size = read(reader.get(), piece, sizeof(piece));
        error.append(piece, size > 0 ? static_cast<size_t>(size) : 0);
        return size > 0;
    }
    // Reads standard error until the text has come or the process has ended.
    bool wait_for(const std::string &text) {
        while (error.find(text) == std::string::npos)
            if (!read_more())
                return false;
        return true;
    }
    // The exit status, or 1000 and the number of the signal, once all of standard error is read.
    int finish() {
        while (read_more()) {
        }
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(child->pid), &end, WEXITED | WNOWAIT);
        return end.si_code == CLD_EXITED ? end.si_status : 1000 + end.si_status;
    }
    int stop(int signal_number) {
        kill(child->pid, signal_number);
        return finish();
    }

    unique_fd reader;
    std::optional<child_process> child;
    std::string error;
};

// Another process or thread is the end of the process that would make it.
void forbid_processes() {
    std::vector<sock_filter> filter{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const long call : {SYS_clone, SYS_clone3,
#ifdef SYS_vfork
                            SYS_fork, SYS_vfork
#endif
         }) {
        filter.push_back(
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned int>(call), 0, 1));
        filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_KILL_PROCESS));
    }
    filter.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program{static_cast<unsigned short>(filter.size()), filter.data()};
    setenv("ASAN_OPTIONS", "detect_leaks=0", 1); // it looks for leaks in a thread
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        abort();
}

class Daemon : public testing::Test {
protected:
    void SetUp() override {
        for (const char *path : {"/mnt", "/etc", "/run", "/dev"})
            if (!mount_empty(path))
                GTEST_SKIP() << "no private mount namespace to be had here";
        fs::copy_file(DAEMON, "/mnt/service"); // the lock is that of this file
        fs::create_directories("/mnt/storage/play");
        fs::create_symlink("storage", "/mnt/main");
        write_file("/dev/null", "");
        log = bound_socket("/dev/log", SOCK_DGRAM);
    }

    // The log's records, without their time.
    std::string records(const daemon_process &daemon) const {
        std::string text;
        char record[512];
        ssize_t size = 0;
        while ((size = recv(log.get(), record, sizeof(record), MSG_DONTWAIT)) > 0)
            text += std::string(record, static_cast<size_t>(size))
                        .erase(strlen("<30>"), strlen("Jan 31 15:45:02 ")) +
                    "\n";
        return replaced(text, "[" + std::to_string(daemon.child->pid) + "]: Velora watch folder",
                        "");
    }

    unique_fd log;
};

class DaemonStart : public Daemon {
protected:
    static void expect_end(const std::vector<std::string> &arguments, int status,
                           const std::string &error, const std::string &output = "watching \n") {
        daemon_process daemon(arguments);
        EXPECT_EQ(daemon.finish(), status);
        EXPECT_EQ(daemon.error, error);
        EXPECT_EQ(read_file("/run/out"), output);
        EXPECT_FALSE(fs::is_regular_file(pid_path));
    }
};

TEST_F(DaemonStart, HelpIsTheUsageText) {
    expect_end({"--help"}, 0, "",
               "USAGE:\n  service [-?|-h|--help] [-d|--directory <watch_folder_dir>]\n\n"
               "Display usage information.\n\nOPTIONS, ARGUMENTS:\n  -?, -h, --help          \n"
               "  -d, --directory <watch_folder_dir>\n                          "
               "What directory has the watch folders?\n\n");
}
TEST_F(DaemonStart, UnknownArgument) {
    expect_end({"x"}, 1, "Error in command line: Unrecognized token: x\n", "");
}
TEST_F(DaemonStart, NoConfigurationFile) {
    expect_end({"-d", ""}, 0, "No configuration path, exiting\n");
}
TEST_F(DaemonStart, LinkToAConfigurationFile) {
    write_file("/etc/good.toml", event);
    fs::create_symlink("good.toml", config_path);
    expect_end({}, 0, "No configuration path, exiting\n");
}
TEST_F(DaemonStart, SyntaxError) {
    write_file(config_path, "[");
    expect_end({}, 1,
               "/etc/vel4_watch_folder.toml: TOML parse error: Unexpected end of table at line 1\n"
               "Failed to load configuration.\n");
}
TEST_F(DaemonStart, NoEntry) {
    write_file(config_path, "x=1");
    expect_end({}, 1, "Nothing to watch.\n");
}
TEST_F(DaemonStart, NoFolderTree) {
    expect_end({"--directory=/mnt/x"}, 1,
               "Warning: cannot list '/mnt/x/Upload/', No such file or directory\n"
               "Nothing to watch.\n",
               "watching /mnt/x\n");
}
TEST_F(DaemonStart, PidFileThatCannotBeWritten) {
    write_file(config_path, event);
    fs::create_directory(pid_path);
    expect_end({}, 1,
               "Added section 'event'\n"
               "Unable to write PID file /var/run/vel4_watch_folder_service.pid\n");
}

TEST_F(Daemon, RunsUntilItIsStoppedAsOneProcessAndThread) {
    write_file(config_path, event);
    write_file(pid_path, "a stale and longer text");
    write_file("/mnt/main/in/new.wav", "new");
    write_file("/mnt/main/play/t.wav", "old");
    write_file("/mnt/main/play/.t.wav.metadir/metadata", "original filename=m.wav\n");
    daemon_process daemon({}, forbid_processes);
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    EXPECT_EQ(read_file(pid_path), std::to_string(daemon.child->pid) + "\n");

    daemon_process second({"-d", "/mnt/x"});
    EXPECT_EQ(second.finish(), 1);
    EXPECT_EQ(second.error, "This service is already running.\n");
    fs::copy_file("/mnt/service", "/mnt/copy");
    daemon_process copy(
        {"-d", "/mnt/x"}, [] {}, "/mnt/copy");
    EXPECT_TRUE(copy.wait_for("Nothing to watch.\n")) << copy.error;

    fs::rename(config_path, "/etc/good.toml");
    fs::create_symlink("good.toml", config_path);
    kill(daemon.child->pid, SIGHUP);
    ASSERT_TRUE(daemon.wait_for("SIGHUP\nAdded section 'event'\n")) << daemon.error;
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_EQ(std::regex_replace(daemon.error, std::regex("pipe:.*"), "a pipe"),
              "Added section 'event'\n"
              "Checking... (main='/mnt/storage')\n"
              "Checking 'event' in '/mnt/main/in'\n"
              "  if new entries replace '/mnt/main/play/t.wav'\n"
              "watch realpath: /mnt/storage/in\n"
              "target realpath: /mnt/storage/play\n"
              "Checking found file 'new.wav' to replace '/mnt/main/play/t.wav'\n"
              "metadata 'original filename'='m.wav'\n"
              "Original filename: 'm.wav'\n"
              "Existing file moved into ARCHIVE directory.\n"
              "already=0\n"
              "Reloading config, SIGHUP\n"
              "Added section 'event'\n"
              "fd 0: /dev/null\nfd 1: /run/out\nfd 2: a pipe\nfd 3: /mnt/service\n");
    EXPECT_EQ(records(daemon), "<30>vel4_watch_folder_service service is starting normally\n"
                               "<29>vel4_watch_folder_service service received SIGHUP, reloading "
                               "configuration\n"
                               "<30>vel4_watch_folder_service service is stopping normally\n");
    EXPECT_EQ(tree_of("/run"), "out=watching \nwatching /mnt/x\nwatching /mnt/x\n\n");
    EXPECT_EQ(tree_of("/mnt/storage"),
              "in/\nplay/.t.wav.metadir/metadata=original filename=new.wav\n\n"
              "play/ARCHIVE/.m.wav.metadir/metadata=original filename=m.wav\n\n"
              "play/ARCHIVE/m.wav=old\nplay/t.wav=new\n");
}

TEST_F(Daemon, WorksOnAFolderTree) {
    write_file(pid_path, "stale");
    write_file("/mnt/main/Upload/A/one", "1");
    daemon_process daemon({"-d", "/mnt/main"});
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    kill(daemon.child->pid, SIGHUP);
    ASSERT_TRUE(daemon.wait_for("SIGHUP\n/etc/vel4_watch_folder.toml: No such file or directory\n"
                                "Warning: Configuration load failure\n"));
    EXPECT_EQ(daemon.stop(SIGQUIT), 0);
    EXPECT_EQ(tree_of("/run"), "out=watching /mnt/main\n\nvel4_watch_folder_service.pid=stale\n");
    EXPECT_EQ(read_file("/mnt/main/Play/A"), "1");
}

// What hinders the service to write costs lines and nothing else.
class DaemonOutput : public Daemon {
protected:
    void expect_delivery(void (*prepare)()) {
        write_file(config_path, event);
        write_file("/mnt/main/in/new.wav", "new");
        daemon_process daemon({}, prepare);
        daemon.reader.reset();
        EXPECT_TRUE(wait_until([] { return fs::exists("/mnt/main/play/t.wav"); }));
        for (const char *fd : {"0", "1", "2"})
            EXPECT_TRUE(fs::exists("/proc/" + std::to_string(daemon.child->pid) + "/fd/" + fd));
        EXPECT_EQ(daemon.stop(SIGINT), 0);
        EXPECT_NE(records(daemon).find("stopping normally"), std::string::npos);
        EXPECT_FALSE(fs::exists(pid_path));
    }
};

TEST_F(DaemonOutput, ClosedPipe) {
    expect_delivery([] {});
}
TEST_F(DaemonOutput, ClosedDescriptors) {
    expect_delivery([] { closefrom(0); });
}
TEST_F(DaemonOutput, FullDevice) {
    expect_delivery([] {
        for (const int fd : {STDOUT_FILENO, STDERR_FILENO})
            dup2(full_device.get(), fd);
    });
}
TEST_F(DaemonOutput, FileOfLimitedSize) {
    expect_delivery([] {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        const rlimit none{0, 0};
        setrlimit(RLIMIT_FSIZE, &none);
    });
}

class DaemonStop : public Daemon {
protected:
    // The status after that many stop signals, which come while a pass waits for its output to be
    // read.
    static int signal_in_pass(int count) {
        write_file(config_path, event);
        daemon_process daemon({}, [] {
            const auto size = static_cast<size_t>(fcntl(STDERR_FILENO, F_SETPIPE_SZ, 1));
            const size_t room =
                strlen("Added section 'event'\nChecking... (main='/mnt/storage')\n");
            if (write(STDERR_FILENO, std::string(size, ' ').data(), size - room) < 0)
                abort();
        });
        EXPECT_TRUE(wait_until([&] {
            int unread = 0;
            ioctl(daemon.reader.get(), FIONREAD, &unread);
            return unread == fcntl(daemon.reader.get(), F_GETPIPE_SZ);
        }));
        const fs::path status = "/proc/" + std::to_string(daemon.child->pid) + "/status";
        for (size_t sent = 0; sent < static_cast<size_t>(count); ++sent) {
            kill(daemon.child->pid, std::array{SIGINT, SIGTERM, SIGQUIT}[sent % 3]);
            EXPECT_TRUE(wait_until([&] { // it is handled: two that are pending are one
                return read_file(status).find("ShdPnd:\t0000000000000000") != std::string::npos;
            }));
        }
        return daemon.finish();
    }
};

TEST_F(DaemonStop, NineSignalsStop) {
    EXPECT_EQ(signal_in_pass(9), 0);
    EXPECT_FALSE(fs::exists(pid_path));
}
TEST_F(DaemonStop, TenSignalsAbort) {
    EXPECT_EQ(signal_in_pass(10), 1000 + SIGABRT);
    EXPECT_TRUE(fs::exists(pid_path));
}

} // namespace
