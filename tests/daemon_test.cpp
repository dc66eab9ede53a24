// Runs of the real executable, with /mnt, /etc, /run and /dev of its own.
#include "tests/support.h"

#include <optional>
#include <regex>
#include <sys/resource.h>

namespace {

constexpr char config_path[] = "/etc/vel4_watch_folder.toml";
constexpr char pid_path[] = "/run/vel4_watch_folder_service.pid";
const std::string event = "[event]\n'watch path' = '/mnt/main/in'\n'match pattern' = 'wav$'\n"
                          "'target file' = '/mnt/main/play/t.wav'\n";

class Daemon : public testing::Test {
protected:
    void SetUp() override {
        for (const char *path : {"/mnt", "/etc", "/run", "/dev"})
            if (!mount_empty(path))
                GTEST_SKIP() << "no private mount namespace to be had here";
        fs::copy_file(DAEMON, "/mnt/service"); // the lock is that of this file
        make_tree("/", {{"mnt/storage/play/", ""}, {"mnt/main", "-> storage"}, {"dev/null", ""}});
        log = bound_socket("/dev/log", SOCK_DGRAM);
    }

    // The log's records, without their time and process.
    std::string records() const {
        std::string text;
        char record[512];
        ssize_t size = 0;
        while ((size = recv(log.get(), record, sizeof(record), MSG_DONTWAIT)) > 0)
            text += std::string(record, static_cast<size_t>(size)) + "\n";
        return std::regex_replace(text, std::regex(">.* (vel4_\\w+)\\[\\d+\\]: Velora"),
                                  ">$1: Velora");
    }

    unique_fd log;
};

// A run as a careless parent starts it, with signals blocked and standard input closed. Standard
// output is appended to /run/out. prepare() runs in the process before the executable does.
struct daemon_process {
    explicit daemon_process(
        const std::vector<const char *> &arguments, void (*prepare)() = [] {},
        const char *program = "/mnt/service") {
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
            for (const int signal_number : {SIGPIPE, SIGXFSZ}) // blocked, they would end nothing
                sigdelset(&blocked, signal_number);
            sigprocmask(SIG_BLOCK, &blocked, nullptr);
            prepare();
            closefrom(STDERR_FILENO + 1);
            std::vector<char *> texts{const_cast<char *>(program)};
            for (const char *argument : arguments)
                texts.push_back(const_cast<char *>(argument));
            texts.push_back(nullptr);
            execv(program, texts.data());
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
    // The exit status, or 1000 and the number of the signal, once all of standard error is read.
    int finish() {
        wait_for("nothing that it prints");
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

} // namespace

TEST_F(Daemon, EndsWhereItCannotStart) {
    const struct {
        file_tree files;
        std::vector<const char *> arguments;
        int status;
        std::string error;
    } rows[] = {
        {{}, {"--help"}, 0, ""},
        {{}, {"x"}, 1, "Error in command line: Unrecognized token: x\n"},
        {{{"good", event}, {config_path, "-> good"}}, {}, 0, "No configuration path, exiting\n"},
        {{{config_path, "["}},
         {},
         1,
         "/etc/vel4_watch_folder.toml: TOML parse error: Unexpected end of table at line 1\nFailed "
         "to load configuration.\n"},
        {{{config_path, "x=1"}}, {}, 1, "Nothing to watch.\n"},
        {{},
         {"-d", "/mnt/x"},
         1,
         "Warning: cannot list '/mnt/x/Upload/', No such file or directory\nNothing to watch.\n"},
        {{{config_path, event}, {std::string(pid_path) + "/x", ""}},
         {},
         1,
         "Added section 'event'\nUnable to write PID file "
         "/var/run/vel4_watch_folder_service.pid\n"},
    };
    for (const auto &row : rows) {
        fs::remove(config_path);
        make_tree("/", row.files);
        daemon_process daemon(row.arguments);
        EXPECT_EQ(daemon.finish(), row.status);
        EXPECT_EQ(daemon.error, row.error);
    }
    EXPECT_EQ(records(), "");
    EXPECT_TRUE(has(read_file("/run/out"),
                    "USAGE:\n  service [-?|-h|--help] [-d|--directory <watch_folder_dir>]\n"));
    EXPECT_TRUE(has(read_file("/run/out"),
                    "watching \nwatching \nwatching \nwatching /mnt/x\nwatching \n"));
}

TEST_F(Daemon, RunsUntilItIsStopped) {
    make_tree("/mnt/main", {{"in/new.wav", "new"},
                            {"play/t.wav", "old"},
                            {"play/.t.wav.metadir/metadata", "original filename=m.wav\n"}});
    make_tree("/", {{config_path, event}, {pid_path, "a stale and longer text"}});
    daemon_process daemon({});
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    const std::string process = std::to_string(daemon.child->pid);
    EXPECT_EQ(read_file(pid_path), process + "\n");
    EXPECT_EQ(read_file("/proc/" + process + "/task/" + process + "/children"), "");
    EXPECT_EQ(std::distance(fs::directory_iterator("/proc/" + process + "/task"), {}), 1);

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
    EXPECT_EQ(records(),
              "<30>vel4_watch_folder_service: Velora watch folder service is starting normally\n"
              "<29>vel4_watch_folder_service: Velora watch folder service received SIGHUP, "
              "reloading configuration\n"
              "<30>vel4_watch_folder_service: Velora watch folder service is stopping normally\n");
    EXPECT_EQ(tree_of("/run"),
              (file_tree{{"out", "watching \nwatching /mnt/x\nwatching /mnt/x\n"}}));
    EXPECT_EQ(tree_of("/mnt/storage"),
              (file_tree{{"in/", ""},
                         {"play/.t.wav.metadir/metadata", "original filename=new.wav\n"},
                         {"play/ARCHIVE/.m.wav.metadir/metadata", "original filename=m.wav\n"},
                         {"play/ARCHIVE/m.wav", "old"},
                         {"play/t.wav", "new"}}));
}

TEST_F(Daemon, WorksOnAFolderTree) {
    make_tree("/", {{pid_path, "stale"}, {"mnt/main/Upload/A/one", "1"}});
    daemon_process daemon({"-d", "/mnt/main"});
    ASSERT_TRUE(daemon.wait_for("already=0\n")) << daemon.error;
    kill(daemon.child->pid, SIGHUP);
    ASSERT_TRUE(daemon.wait_for("SIGHUP\n/etc/vel4_watch_folder.toml: No such file or directory\n"
                                "Warning: Configuration load failure\n"));
    EXPECT_EQ(daemon.stop(SIGQUIT), 0);
    EXPECT_EQ(read_file(pid_path), "stale");
    EXPECT_EQ(read_file("/mnt/main/Play/A"), "1");
}

// Closed descriptors, a closed pipe and a file that may not grow cost lines and nothing else.
TEST_F(Daemon, DeliversWhereItCannotWriteLines) {
    void (*const preparations[])() = {[] { closefrom(0); }, [] {},
                                      [] {
                                          dup2(STDOUT_FILENO, STDERR_FILENO);
                                          const rlimit none{0, 0};
                                          setrlimit(RLIMIT_FSIZE, &none);
                                      }};
    for (const auto prepare : preparations) {
        fs::remove_all("/mnt/storage/play");
        make_tree("/mnt/main", {{"in/new.wav", "new"}, {"play/", ""}});
        write_file(config_path, event);
        daemon_process daemon({}, prepare);
        daemon.reader.reset();
        for (int tries = 0; tries < 10000 && !fs::exists("/mnt/main/play/t.wav"); ++tries)
            usleep(1000); // it sends no event
        EXPECT_EQ(daemon.stop(SIGINT), 0);
        EXPECT_EQ(read_file("/mnt/main/play/t.wav"), "new");
        EXPECT_FALSE(fs::exists(pid_path));
    }
}
