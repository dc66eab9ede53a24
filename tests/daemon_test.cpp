// Runs of the real executable, with /mnt, /etc, /run and /dev of its own.
#include "tests/support.h"

#include <optional>
#include <regex>

namespace {

constexpr char config_path[] = "/etc/vel4_watch_folder.toml";
constexpr char pid_path[] = "/run/vel4_watch_folder_service.pid";
const std::string event = "[event]\n'watch path' = '/mnt/main/in'\n'match pattern' = 'wav$'\n"
                          "'target file' = '/mnt/main/play/t.wav'\n";

// A run as a careless parent starts it, with signals blocked and standard input closed. Standard
// output is appended to /run/out.
struct daemon_process {
    explicit daemon_process(const char *option, const char *program = "/mnt/service") {
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reader.reset(ends[0]);
        const unique_fd writer(ends[1]);
        child.emplace([&] {
            dup2(writer.get(), STDERR_FILENO);
            dup2(open("/run/out", O_WRONLY | O_CREAT | O_APPEND, 0644), STDOUT_FILENO);
            close(STDIN_FILENO);
            sigset_t blocked;
            sigfillset(&blocked);
            sigdelset(&blocked, SIGPIPE); // blocked, it would end nothing
            sigprocmask(SIG_BLOCK, &blocked, nullptr);
            closefrom(STDERR_FILENO + 1);
            execl(program, program, option, nullptr);
            abort();
        });
    }

    // Reads standard error until the text has come or the process has ended.
    bool wait_for(const std::string &text) {
        char piece[4096];
        ssize_t size = 1;
        while (error.find(text) == std::string::npos && size > 0) {
            size = read(reader.get(), piece, sizeof(piece));
            error.append(piece, size > 0 ? static_cast<size_t>(size) : 0);
        }
        return size > 0;
    }
    // Sends the signal and returns the exit status, -1 where there is none.
    int stop(int signal_number) {
        kill(child->pid, signal_number);
        wait_for("nothing that it prints");
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(child->pid), &end, WEXITED | WNOWAIT);
        return end.si_code == CLD_EXITED ? end.si_status : -1;
    }

    unique_fd reader;
    std::optional<child_process> child;
    std::string error;
};

bool has_machine() {
    for (const char *path : {"/mnt", "/etc", "/run", "/dev"})
        if (!mount_empty(path))
            return false;
    fs::copy_file(DAEMON, "/mnt/service"); // the lock is that of this file
    make_tree("/", {{"mnt/storage/play/", ""}, {"mnt/main", "-> storage"}, {"dev/null", ""}});
    return true;
}

const struct start_case {
    const char *name, *option;
    file_tree files;
    int status;
    std::string error, output = "watching \n";
} start_cases[] = {
    {"Help", "--help", {}, 0, "", "USAGE:\n  service [-?|-h|--help] [-d|--directory <watch_"},
    {"UnknownArgument", "x", {}, 1, "Error in command line: Unrecognized token: x\n", ""},
    {"LinkToAFile",
     nullptr,
     {{"good", event}, {config_path, "-> good"}},
     0,
     "No configuration path, exiting\n"},
    {"SyntaxError",
     nullptr,
     {{config_path, "["}},
     1,
     "/etc/vel4_watch_folder.toml: TOML parse error: Unexpected end of table at line 1\nFailed to "
     "load configuration.\n"},
    {"NoEntry", nullptr, {{config_path, "x=1"}}, 1, "Nothing to watch.\n"},
    {"NoFolderTree",
     "-d/mnt/x",
     {},
     1,
     "Warning: cannot list '/mnt/x/Upload/', No such file or directory\nNothing to watch.\n",
     "watching /mnt/x\n"},
    {"NoPidFile",
     nullptr,
     {{config_path, event}, {std::string(pid_path) + "/x", ""}},
     1,
     "Added section 'event'\nUnable to write PID file /var/run/vel4_watch_folder_service.pid\n"},
};

void check_start(const start_case &row) {
    if (!has_machine())
        GTEST_SKIP() << "no private mount namespace to be had here";
    make_tree("/etc", row.files);
    daemon_process daemon(row.option);
    EXPECT_EQ(daemon.stop(0), row.status);
    EXPECT_EQ(daemon.error, row.error);
    EXPECT_EQ(read_file("/run/out").substr(0, row.output.size()), row.output);
    EXPECT_FALSE(fs::is_regular_file(pid_path));
}

const bool registered = register_rows("Start", start_cases, check_start);

} // namespace

TEST(Daemon, RunsUntilItIsStopped) {
    if (!has_machine())
        GTEST_SKIP() << "no private mount namespace to be had here";
    const unique_fd log = bound_socket("/dev/log", SOCK_DGRAM);
    make_tree("/", {{config_path, event}, {pid_path, "a stale and longer text"}});
    make_tree("/mnt",
              {{"main/in/new.wav", "new"}, {"main/play/t.wav", "old"}, {"tree/Upload/A/one", "1"}});
    daemon_process daemon(nullptr);
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    const std::string process = std::to_string(daemon.child->pid);
    EXPECT_EQ(read_file(pid_path), process + "\n");
    EXPECT_EQ(read_file("/proc/" + process + "/task/" + process + "/children"), "");
    EXPECT_EQ(std::distance(fs::directory_iterator("/proc/" + process + "/task"), {}), 1);
    daemon_process second("-d/mnt/x");
    EXPECT_EQ(second.stop(0), 1);
    EXPECT_EQ(second.error, "This service is already running.\n");

    fs::rename(config_path, "/etc/good.toml");
    fs::create_symlink("good.toml", config_path);
    kill(daemon.child->pid, SIGHUP);
    ASSERT_TRUE(daemon.wait_for("SIGHUP\nAdded section 'event'\n")) << daemon.error;
    EXPECT_EQ(daemon.stop(SIGTERM), 0);
    EXPECT_EQ(
        std::regex_replace(daemon.error, std::regex("pipe:.*"), "a pipe"),
        "Added section 'event'\nChecking... (main='/mnt/storage')\n"
        "Checking 'event' in '/mnt/main/in'\n  if new entries replace '/mnt/main/play/t.wav'\n"
        "watch realpath: /mnt/storage/in\ntarget realpath: /mnt/storage/play\n"
        "Checking found file 'new.wav' to replace '/mnt/main/play/t.wav'\n"
        "Target meta load fail from old file\nOriginal filename: ''\n"
        "Existing file moved into ARCHIVE directory.\nalready=0\n"
        "Reloading config, SIGHUP\nAdded section 'event'\n"
        "fd 0: /dev/null\nfd 1: /run/out\nfd 2: a pipe\nfd 3: /mnt/service\n");
    EXPECT_EQ(read_file("/run/out"), "watching \nwatching /mnt/x\n");
    EXPECT_FALSE(fs::exists(pid_path));
    for (const char *text :
         {"<30>.*: Velora watch folder service is starting normally",
          "<29>.*: Velora watch folder service received SIGHUP, reloading configuration",
          "<30>.*: Velora watch folder service is stopping normally"}) {
        char record[512];
        const ssize_t size = recv(log.get(), record, sizeof(record), MSG_DONTWAIT);
        EXPECT_TRUE(
            std::regex_match(std::string(record, static_cast<size_t>(size)), std::regex(text)))
            << record;
    }
}

// Of another executable file, beside the first, on a folder tree, with nobody who reads its lines.
TEST(Daemon, RunsOnAFolderTree) {
    if (!has_machine())
        GTEST_SKIP() << "no private mount namespace to be had here";
    make_tree("/", {{pid_path, "of another"}});
    make_tree("/mnt/main", {{"Upload/A/one", "1"}, {"other/Upload/A/one", "2"}});
    fs::copy_file("/mnt/service", "/mnt/copy");
    daemon_process other("-d/mnt/main/other", "/mnt/copy"), daemon("-d/mnt/main");
    other.reader.reset();
    daemon.reader.reset();
    for (const char *path : {"/mnt/main/Play/A", "/mnt/main/other/Play/A"})
        for (int tries = 0; tries < 20000 && !fs::exists(path); ++tries)
            usleep(1000); // it sends no event
    EXPECT_TRUE(daemon.stop(SIGQUIT) == 0 && other.stop(SIGINT) == 0);
    EXPECT_EQ(read_file("/mnt/main/Play/A") + read_file("/mnt/main/other/Play/A"), "12");
    EXPECT_EQ(read_file(pid_path), "of another");
}
