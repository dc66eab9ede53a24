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

// The clock's readings to come, SIGTERM at the last; what happens while the loop sleeps.
std::vector<uint64_t> readings;
size_t next_reading;
std::string history; // per iteration "next due/entries", and "z" where it slept
std::function<void()> during_sleep, during_syslog;

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

std::string run_loop(const std::string &directory, std::vector<uint64_t> clock) {
    readings = std::move(clock);
    next_reading = 0;
    history.clear();
    install_signal_handlers();
    run_main_loop(directory);
    stop_count = 0;
    return history;
}

// What it prints on standard output or standard error, "STATUS: DIRECTORY"; -1: the service goes
// on.
std::string parsed(std::vector<const char *> words) {
    words.insert(words.begin(), "/usr/sbin/service");
    std::string directory, error, status;
    const auto parse = [&] {
        const auto end =
            parse_command_line(static_cast<int>(words.size()), words.data(), directory);
        status = std::to_string(end.value_or(-1));
    };
    const std::string out = output_of([&] { error = output_of(parse); }, STDOUT_FILENO);
    return out + error + status + ": " + directory;
}

const struct line_case {
    const char *name;
    std::vector<const char *> words;
    const char *outcome;
} line_cases[] = {
    {"None", {}, "-1: "},
    {"NextArgument", {"-d", "-h"}, "-1: -h"},
    {"Joined", {"-dfoo"}, "-1: foo"},
    {"AfterEquals", {"--directory=/a=b"}, "-1: /a=b"},
    {"Word", {"x"}, "Error in command line: Unrecognized token: x\n1: "},
    {"WithoutValue", {"-d"}, "Error in command line: Expected argument following -d\n1: "},
    {"Twice", {"-d", "/a", "-d", "/b"}, "Error in command line: Unrecognized token: -d\n1: /a"},
    {"Help", {"-h", "x"}, "What directory has the watch folders?\n\n0: "},
    {"HelpWithValue", {"-h=1"}, "Flag option '-h' contains value '1'.\n1: "},
};

const bool registered = register_rows("CommandLine", line_cases, [](const line_case &row) {
    EXPECT_TRUE(has(parsed(row.words), row.outcome));
});

TEST(MainLoop, KeepsDueTimesAndRescansInDirectoryMode) {
    const temporary_tree tree{{"Upload/A/", ""}};
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
    const temporary_tree tree{{"c", "[event1]\n'watch path'='w'\n'target file'='t'\n"}};
    configuration_path = tree / "c";
    configuration = {{"old", {}}};
    during_sleep = [&] {
        for (int i = 0; i < 3; ++i)
            raise(SIGHUP);
        during_sleep = nullptr;
    };
    during_syslog = [&] {
        raise(SIGHUP);
        during_syslog = [] { fs::remove(configuration_path); };
    };
    EXPECT_EQ(output_of([&] {
                  EXPECT_EQ(run_loop("", {0, 0, 1, 2, 3}), "z500000/1 z500000/0 z500000/0 z");
              }),
              "Reloading config, SIGHUP\nAdded section 'event1'\nReloading config, SIGHUP\n" +
                  configuration_path +
                  ": No such file or directory\nWarning: Configuration load failure\n");
}

TEST(Signals, TheTenthStopSignalAborts) {
    install_signal_handlers();
    for (int sent = 0; sent < 3; ++sent)
        for (const int number : {SIGINT, SIGTERM, SIGQUIT})
            raise(number);
    EXPECT_EQ(std::exchange(stop_count, 0U), 9U);
    EXPECT_EXIT((stop_count = 9, raise(SIGINT)), testing::KilledBySignal(SIGABRT), "");
}

// Deliveries, reloads and rescans mixed: descriptors and memory stay as after the first 50 passes.
TEST(LongLife, FiveHundredPasses) {
    const temporary_tree tree{{"Upload/A/", ""}};
    const std::string upload = tree / "Upload/A", play = tree / "Play/A";
    configuration_path = tree / "c";
    write_file(configuration_path, "[event]\n'watch path'='" + upload + "'\n'match pattern'=''\n" +
                                       "'target file'='" + play + "'\n");
    configuration = build_directory_configuration(tree.root);
    int pass = 0;
    std::pair<ptrdiff_t, size_t> before;
    during_sleep = [&] {
        main_path = tree.root.parent_path();
        write_file(upload + "/n", std::to_string(++pass));
        check_watch_entries();
        EXPECT_EQ(read_file(play), std::to_string(pass));
        fs::remove_all(tree / "Play/ARCHIVE");
        if (pass % 7 == 0)
            raise(SIGHUP);
        const std::pair now(open_descriptors(), mallinfo2().uordblks);
        if (pass == 50)
            before = now;
        if (pass == 500) {
            EXPECT_EQ(now.first, before.first);
            EXPECT_LE(now.second, before.second + 65536);
        }
    };
    std::vector<uint64_t> clock; // a rescan every eighth iteration, a check every second one
    for (uint64_t n = 0; n < 1510; ++n)
        clock.push_back(n * 40000000);
    output_of([&] { run_loop(tree.root, clock); });
    during_sleep = nullptr;
    EXPECT_GE(pass, 500);
}
