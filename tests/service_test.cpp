// The command line, the main loop on a clock of its own, and the signals.
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
#include "service/command_line.h"
#include "service/main_loop.h"
#include "service/main_storage.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <malloc.h>

namespace {

// The clock's readings to come, SIGTERM at the last; what happens while the loop sleeps.
std::vector<uint64_t> readings;
size_t next_reading;
std::string history; // per iteration "next due/entries", and "z" where it slept
std::function<void()> during_sleep, during_syslog;

} // namespace

uint64_t monotonic_clock_us(void) {
    if (next_reading > 1)
        history += std::to_string(next_check_us) + "/" + std::to_string(configuration.size()) + " ";
    if (next_reading + 1 == readings.size())
        raise(SIGTERM);
    return readings[next_reading++];
}

extern "C" unsigned int sleep(unsigned int) {
    history += "z";
    if (during_sleep)
        during_sleep();
    return 0;
}

// Nothing of a test goes into the machine's log.
extern "C" void syslog(int, const char *, ...) {
    if (during_syslog)
        std::exchange(during_syslog, nullptr)();
}

namespace {

std::string run_loop(const std::string &directory, std::vector<uint64_t> clock) {
    readings = std::move(clock);
    next_reading = 0;
    history.clear();
    install_signal_handlers();
    run_main_loop(directory);
    stop_count = 0;
    return history;
}

const char usage[] =
    "USAGE:\n  service [-?|-h|--help] [-d|--directory <watch_folder_dir>]\n\nDisplay usage "
    "information.\n\nOPTIONS, ARGUMENTS:\n  -?, -h, --help          \n  -d, --directory "
    "<watch_folder_dir>\n                          What directory has the watch folders?\n\n";

const struct line_case {
    const char *name;
    std::vector<const char *> arguments;
    std::string output; // on standard output, or on standard error behind "Error in command line: "
    const char *value = "";
    int status = -1; // -1: the service goes on
} line_cases[] = {
    {"None", {}, ""},
    {"NextArgument", {"-d", "/a=b"}, "", "/a=b"},
    {"Joined", {"-dfoo"}, "", "foo"},
    {"AfterEquals", {"--directory=/a=b"}, "", "/a=b"},
    {"ValueLikeAnOption", {"-d", "-h"}, "", "-h"},
    {"Word", {"x"}, "Unrecognized token: x\n", "", 1},
    {"WithoutValue", {"-d"}, "Expected argument following -d\n", "", 1},
    {"Twice", {"-d", "/a", "-d", "/b"}, "Unrecognized token: -d\n", "/a", 1},
    {"Help", {"-h", "x"}, usage, "", 0},
    {"HelpWithValue", {"-h=1"}, "Flag option '-h' contains value '1'.\n", "", 1},
};

void check_line(const line_case &row) {
    std::vector<const char *> words = row.arguments;
    words.insert(words.begin(), "/usr/sbin/service");
    std::string value;
    const auto parse = [&] {
        const auto status = parse_command_line(static_cast<int>(words.size()), words.data(), value);
        EXPECT_EQ(status.value_or(-1), row.status);
    };
    EXPECT_EQ(output_of(parse, row.status == 0 ? STDOUT_FILENO : STDERR_FILENO),
              row.status == 1 ? "Error in command line: " + row.output : row.output);
    EXPECT_EQ(value, row.value);
}

const bool registered = register_rows("CommandLine", line_cases, check_line);

} // namespace

TEST(MainStorage, PathsLieStrictlyBelow) {
    main_path = "/data/main";
    EXPECT_TRUE(is_under_main_path("/data/main/x"));
    for (const char *path : {"/data/main", "/data/mainx/y", "/Data/main/x", ""})
        EXPECT_FALSE(is_under_main_path(path)) << path;
}

TEST(MainLoop, KeepsDueTimesAndRescansInDirectoryMode) {
    const temporary_tree tree;
    fs::create_directories(tree / "Upload/A");
    main_path = "/gone"; // the storage was there at the last check
    // start | not due | first check | a moment early | on time | 70 s late | 59 s late |
    // just under 59 s late | stop
    const std::vector<uint64_t> clock = {0,         0,         1000000,   60499999, 60500000,
                                         190500000, 309500000, 428499999, 428500000};
    const std::string early = "z500000/2 60500000/2 z60500000/2 120500000/2 250500000/2 ";
    configuration = {{"a", {}}, {"b", {}}};
    const std::string lines = output_of([&] {
        EXPECT_EQ(run_loop("", clock), early + "369500000/2 429500000/2 z");
        EXPECT_EQ(run_loop(tree.root, clock), early + "369500000/1 429500000/1 z");
    });
    EXPECT_EQ(main_path, realpath_string("/mnt/main"));
    EXPECT_EQ(lines.find("main='/gone'"), std::string::npos);
    EXPECT_EQ(lines.find("main=''"), std::string::npos) << "no check without the storage";
}

TEST(MainLoop, StopBeforeTheFirstIterationRunsNoCheck) {
    stop_count = 1;
    EXPECT_EQ(run_loop("", {0, 0}), "");
}

TEST(MainLoop, ManySighupsAreOneReloadAndOneDuringItIsAnother) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, "[event1]\n\"watch path\"='w'\n\"target file\"='t'\n");
    configuration = {{"old", {}}};
    during_sleep = [&] {
        for (int i = 0; i < 3; ++i)
            raise(SIGHUP);
        during_sleep = nullptr;
    };
    during_syslog = [&] {
        raise(SIGHUP);
        during_syslog = [] { write_file(configuration_path, "["); };
    };
    EXPECT_EQ(
        output_of([&] {
            EXPECT_EQ(run_loop(tree.root, {0, 0, 1, 2, 3}), "z500000/1 z500000/0 z500000/0 z");
        }),
        "Reloading config, SIGHUP\nAdded section 'event1'\nReloading config, SIGHUP\n" +
            configuration_path +
            ": TOML parse error: Unexpected end of table at line 1\n"
            "Warning: Configuration load failure\n");
}

TEST(Signals, TheTenthStopSignalAborts) {
    stop_count = 0;
    install_signal_handlers();
    for (int sent = 0; sent < 3; ++sent)
        for (const int number : {SIGINT, SIGTERM, SIGQUIT})
            raise(number);
    EXPECT_EQ(stop_count, 9U);
    EXPECT_EXIT(raise(SIGINT), testing::KilledBySignal(SIGABRT), "");
    stop_count = 0;
}

// Deliveries, reloads and rescans mixed: descriptors and memory stay as after the first 50 passes.
TEST(LongLife, FiveHundredPasses) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    make_tree(tree.root,
              {{"Upload/A/", ""},
               {"c.toml", "[event]\n'watch path'='" + tree / "Upload/A" +
                              "'\n'match pattern'=''\n'target file'='" + tree / "Play/A" + "'\n"}});
    configuration = build_directory_configuration(tree.root);
    int pass = 0;
    std::pair<ptrdiff_t, size_t> before;
    during_sleep = [&] {
        main_path = tree.root.parent_path();
        write_file(tree / "Upload/A/n", std::to_string(++pass));
        check_watch_entries();
        EXPECT_EQ(read_file(tree / "Play/A"), std::to_string(pass));
        fs::remove_all(tree / "Play/ARCHIVE");
        if (pass % 7 == 0)
            raise(SIGHUP);
        const std::pair now(open_descriptors(), mallinfo2().uordblks);
        if (pass == 50)
            before = now;
        if (pass == 500) {
            EXPECT_EQ(now.first, before.first);
            EXPECT_LE(now.second, before.second + 65536);
            raise(SIGTERM);
        }
    };
    std::vector<uint64_t> clock; // a rescan every eighth iteration, a check every second one
    for (uint64_t n = 0; n < 2000; ++n)
        clock.push_back(n * 40000000);
    output_of([&] { run_loop(tree.root, clock); });
    during_sleep = nullptr;
    EXPECT_EQ(pass, 500);
}
