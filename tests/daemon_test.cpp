// Runs of the real executable, with /mnt, /etc, /run and /dev of its own.
#include "tests/support.h"

#include <sys/mount.h>

constexpr char config_path[] = "/etc/vel4_watch_folder.toml";
constexpr char pid_path[] = "/run/vel4_watch_folder_service.pid";
const std::string event = "[event]\n'watch path' = '/mnt/main/in'\n'match pattern' = 'wav$'\n"
                          "'target file' = '/mnt/main/play/t.wav'\n";

// A /mnt, /etc, /run and /dev of our own. False where that is not allowed.
bool enter_private_mounts() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    for (const char *path : {"/mnt", "/etc", "/run", "/dev"})
        EXPECT_EQ(mount("none", path, "tmpfs", 0, "mode=755"), 0) << path;
    fs::copy_file(DAEMON, "/mnt/service"); // the lock is that of this file
    make_tree("/mnt", {{"storage/play/", ""}, {"main", "-> storage"}, {"/dev/null", ""}});
    return true;
}

// A run as a careless parent starts it, with signals blocked and standard input
// closed.
ChildProcess start(const char *option) {
    return ChildProcess([&] {
        sigset_t blocked;
        sigfillset(&blocked);
        sigprocmask(SIG_BLOCK, &blocked, nullptr);
        for (const auto &[file, fd] : {std::pair("/run/out", 1), {"/run/err", 2}})
            dup2(open(file, O_WRONLY | O_CREAT | O_APPEND, 0644), fd);
        close(STDIN_FILENO);
        closefrom(STDERR_FILENO + 1);
        _exit(execl("/mnt/service", "service", option, nullptr));
    });
}

// Nothing tells when a line is written; 20 seconds are enough for all of them.
void wait_for(const char *file, const std::string &text) {
    for (int tries = 0; tries < 20000 && !has(read_file(file), text); ++tries)
        usleep(1000);
    EXPECT_TRUE(has(read_file(file), text));
}

const struct StartCase {
    const char *name, *option;
    std::string file; // the configuration
    int status;
    std::string lines; // the last ones
} start_cases[] = {
    {"Help", "--help", "", 0, "What directory has the watch folders?\n\n"},
    {"Word", "x", "", 1, "Error in command line: Unrecognized token: x\n"},
    {"LinkToAFile", nullptr, "-> good", 0, "No configuration path, exiting\n"},
    {"SyntaxError", nullptr, "[", 1, "at line 1\nFailed to load configuration.\n"},
    {"NoEntry", nullptr, "x=1", 1, "Nothing to watch.\n"},
    {"NoFolderTree", "-d/x", "", 1, "'/x/Upload/', No such file or directory\nNothing to watch.\n"},
    {"NoPidFile", nullptr, event, 1, "write PID file /var/run/vel4_watch_folder_service.pid\n"},
};

// The PID file is a folder, so it cannot be written.
void check_start(const StartCase &row) {
    if (!enter_private_mounts())
        GTEST_SKIP() << "no private mount namespace to be had here";
    make_tree(pid_path, {{"/etc/good", event}, {config_path, row.file}, {"x", ""}});
    EXPECT_EQ(start(row.option).status(), row.status);
    EXPECT_TRUE(has(read_file("/run/out") + read_file("/run/err") + "|", row.lines + "|"));
}

const bool registered = register_rows("Start", start_cases, check_start);

TEST(Daemon, RunsUntilItIsStopped) {
    if (!enter_private_mounts())
        GTEST_SKIP() << "no private mount namespace to be had here";
    const UniqueFd log = bound_socket("/dev/log", SOCK_DGRAM);
    make_tree("/mnt/main/in", {{config_path, event}, {pid_path, "a stale and longer text"}});
    fs::create_directory("/mnt/main/in");
    const ChildProcess daemon = start(nullptr);
    wait_for("/run/err", "target realpath: /mnt/storage/play\n");
    EXPECT_EQ(read_file(pid_path), std::to_string(daemon.pid) + "\n");
    EXPECT_EQ(start("-d/mnt/x").status(), 1);
    kill(daemon.pid, SIGHUP);
    wait_for("/run/err", "SIGHUP\nAdded section 'event'\n");
    kill(daemon.pid, SIGINT);
    EXPECT_EQ(daemon.status(), 0);
    EXPECT_TRUE(has(read_file("/run/err"),
                    "target realpath: /mnt/storage/play\nThis service is already running.\n"
                    "Reloading config, SIGHUP\nAdded section 'event'\n"
                    "fd 0: /dev/null\nfd 1: /run/out\nfd 2: /run/err\nfd 3: /mnt/service\n"));
    EXPECT_EQ(read_file("/run/out"), "watching \nwatching /mnt/x\n");
    EXPECT_FALSE(fs::exists(pid_path));
    std::string records;
    char record[512];
    for (ssize_t size = 0; (size = recv(log.get(), record, 512, MSG_DONTWAIT)) > 0;)
        records += std::string(record, static_cast<size_t>(size)) + "\n";
    const std::regex head(">.* vel4_watch_folder_service\\[\\d+\\]: Velora watch folder service");
    EXPECT_EQ(std::regex_replace(records, head, ""),
              "<30 is starting normally\n<29 received SIGHUP, reloading configuration\n"
              "<30 is stopping normally\n");
}
