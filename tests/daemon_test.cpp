// Runs of the real executable. Each lives in a mount namespace in which /mnt, /etc, /run and /dev
// are its own: nothing of the machine is read or touched.
#include "tests/support.h"

#include <gtest/gtest.h>
#include <optional>
#include <regex>
#include <sched.h>
#include <sys/mount.h>

namespace {

constexpr char config_path[] = "/etc/vel4_watch_folder.toml";
constexpr char pid_path[] = "/run/vel4_watch_folder_service.pid";

bool mount_empty_folders() {
    for (const char *path : {"/mnt", "/etc", "/run", "/dev"})
        if (mount("none", path, "tmpfs", 0, nullptr) != 0)
            return false;
    return true;
}

// An ordinary user gets the namespace by way of a user namespace.
bool enter_namespace() {
    const std::string uid = std::to_string(getuid());
    const std::string gid = std::to_string(getgid());
    if (unshare(CLONE_NEWNS) != 0) {
        if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
            return false;
        write_file("/proc/self/setgroups", "deny");
        write_file("/proc/self/uid_map", "0 " + uid + " 1");
        write_file("/proc/self/gid_map", "0 " + gid + " 1");
    }
    return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 && mount_empty_folders();
}

const bool has_namespace = enter_namespace();

// A run of the daemon as a careless parent starts it, with the signals blocked and standard input
// closed. What it prints on standard output is appended to /run/out.
class daemon_process {
public:
    explicit daemon_process(const std::string &arguments, bool is_read = true) {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0)
            abort();
        const unique_fd writer(ends[1]);
        reader_.reset(ends[0]);
        if (!is_read)
            stop_reading();
        child_.emplace([&] {
            dup2(writer.get(), STDERR_FILENO);
            closefrom(STDERR_FILENO + 1);
            sigset_t all;
            sigfillset(&all);
            sigdelset(&all, SIGPIPE); // blocked, it could not show that it is ignored
            sigprocmask(SIG_BLOCK, &all, nullptr);
            const std::string command = "exec /mnt/service <&- >>/run/out " + arguments;
            execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            abort();
        });
    }

    // Reads standard error until the text has come or the daemon has ended.
    bool wait_for(const std::string &text) {
        while (error.find(text) == std::string::npos)
            if (!read_more())
                return false;
        return true;
    }

    void stop_reading() { reader_.reset(); }

    // The exit status, once everything that it wrote is in `error`.
    int finish() {
        while (read_more()) {
        }
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(pid()), &end, WEXITED | WNOWAIT);
        return end.si_code == CLD_EXITED ? end.si_status : 1000 + end.si_status;
    }

    pid_t pid() const { return child_->pid; }

    std::string error;

private:
    bool read_more() {
        char piece[4096];
        const ssize_t size = read(reader_.get(), piece, sizeof(piece));
        error.append(piece, size > 0 ? static_cast<size_t>(size) : 0);
        return size > 0;
    }
    unique_fd reader_;
    std::optional<child_process> child_;
};

using daemon_case = std::map<char, std::string>;

std::vector<daemon_case> cases_of(const char *file) {
    return read_cases(fs::path(TEST_CASES) / file, {{"\\n", "\2"}});
}

class Daemon : public testing::Test {
protected:
    void SetUp() override {
        if (!has_namespace)
            GTEST_SKIP() << "no private mount namespace to be had here";
    }

    // What is there before the daemon starts, and nothing else.
    void prepare(daemon_case &run) {
        ASSERT_TRUE(mount_empty_folders());
        fs::copy_file(DAEMON, "/mnt/service"); // the lock of another run must not count
        make_tree("/", "mnt/storage/\nmnt/main -> storage\ndev/null=\n" + run['+']);
        if (!run['%'].empty())
            write_file(config_path, run['%']);
        log_ = bound_socket("/dev/log", SOCK_DGRAM);
    }

    void expect_end(daemon_process &daemon, daemon_case &run) const {
        EXPECT_EQ(std::to_string(daemon.finish()) + "\n", run['!']) << run['#'];
        EXPECT_EQ(std::regex_replace(daemon.error, std::regex("pipe:.*"), "a pipe"), run['|']);
        const std::string pid = "[" + std::to_string(daemon.pid()) + "]";
        EXPECT_EQ(replaced(log_records(), pid, "[PID]"), run['~']);
        EXPECT_EQ(tree_of("/run") + tree_of("/mnt/main"), replaced(run['='], "\2", "\n"))
            << run['#'];
    }

private:
    // The records so far, without their time.
    std::string log_records() const {
        std::string records;
        char record[512];
        ssize_t size = 0;
        while ((size = recv(log_.get(), record, sizeof(record), MSG_DONTWAIT)) > 0) {
            std::string text(record, static_cast<size_t>(size));
            records += text.erase(strlen("<30>"), strlen("Jan 31 15:45:02 ")) + "\n";
        }
        return records;
    }

    unique_fd log_;
};

} // namespace

TEST_F(Daemon, EndsAtOnceWhereItCannotStart) {
    for (daemon_case &run : cases_of("daemon_starts.txt")) {
        prepare(run);
        daemon_process daemon(run['>'], run.count('-') == 0);
        expect_end(daemon, run);
    }
}

TEST_F(Daemon, RunsFromTheConfigurationFileUntilItIsStopped) {
    daemon_case run = cases_of("daemon_runs.txt").at(0);
    prepare(run);
    const child_process writer([] { open("/mnt/main/other/a.wav", O_WRONLY | O_CLOEXEC); });
    daemon_process daemon(run['>']);
    ASSERT_TRUE(daemon.wait_for("in use, not acting\n")) << daemon.error;
    EXPECT_EQ(read_file(pid_path), std::to_string(daemon.pid()) + "\n");
    daemon_process second("-d /mnt/main");
    EXPECT_EQ(second.finish(), 1);
    EXPECT_EQ(second.error, "This service is already running.\n");

    write_file(config_path, run['^']);
    kill(daemon.pid(), SIGHUP);
    ASSERT_TRUE(daemon.wait_for("Added section 'event'\n")) << daemon.error;
    kill(daemon.pid(), SIGTERM);
    expect_end(daemon, run);
}

TEST_F(Daemon, WorksOnAFolderTree) {
    daemon_case run = cases_of("daemon_runs.txt").at(1);
    prepare(run);
    daemon_process daemon(run['>']);
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    daemon.stop_reading(); // the list of descriptors goes to nobody, which ends nothing
    kill(daemon.pid(), SIGQUIT);
    expect_end(daemon, run);
}
