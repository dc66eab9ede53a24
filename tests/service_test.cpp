// The main loop on a clock of its own, and the signals.
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
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
    EXPECT_EQ(lines.find(main_path.empty() ? "main=" : "main='/gone'"), std::string::npos);
}

TEST(MainLoop, StopBeforeTheFirstIterationRunsNoCheck) {
    stop_count = 1;
    EXPECT_EQ(run_loop("", {0, 0}), "");
}

TEST(MainLoop, ManySighupsAreOneReloadAndOneDuringItIsAnother) {
    configuration_path = "gone";
    configuration = {{"old", {}}};
    during_sleep = [] {
        raise(SIGHUP);
        raise(SIGHUP);
        during_sleep = nullptr;
    };
    during_syslog = [] { raise(SIGHUP); };
    const std::string reload = "Reloading config, SIGHUP\ngone: No such file or directory\n"
                               "Warning: Configuration load failure\n";
    EXPECT_EQ(output_of([] { run_loop("", {0, 0, 1, 2, 3}); }), reload + reload);
    EXPECT_EQ(history, "z500000/0 z500000/0 z500000/0 z");
}

TEST(Signals, TheTenthStopSignalAborts) {
    install_signal_handlers();
    stop_count = 6;
    for (const int number : {SIGINT, SIGTERM, SIGQUIT})
        raise(number);
    EXPECT_EQ(stop_count, 9U);
    EXPECT_EXIT(raise(SIGINT), testing::KilledBySignal(SIGABRT), "");
    stop_count = 0;
}

// Deliveries, reloads and rescans mixed: descriptors and memory stay as after the first 50 passes.
TEST(LongLife, FiveHundredPasses) {
    const temporary_tree tree{{"Upload/A/", ""}, {"Play/", ""}};
    fs::current_path(tree.root);
    write_file("./c",
               "[event]\n'watch path'='Upload/A'\n'match pattern'=''\n'target file'='Play/A'");
    configuration_path = "c";
    configuration = build_directory_configuration(".");
    int pass = 0;
    std::pair<ptrdiff_t, size_t> before, after;
    during_sleep = [&] {
        main_path = tree.root;
        write_file("Upload/A/n", std::to_string(++pass));
        check_watch_entries();
        EXPECT_EQ(read_file("Play/A"), std::to_string(pass));
        fs::remove_all("Play/ARCHIVE");
        if (pass % 7 == 0)
            raise(SIGHUP);
        after = {open_descriptors(), mallinfo2().uordblks};
        if (pass == 50)
            before = after;
    };
    std::vector<uint64_t> clock; // a rescan every eighth iteration, a check for two of three
    for (uint64_t n = 0; n < 1510; ++n)
        clock.push_back(n * 40000000);
    output_of([&] { run_loop(".", clock); });
    during_sleep = nullptr;
    EXPECT_GE(pass, 500);
    EXPECT_EQ(after.first, before.first);
    EXPECT_LE(after.second, before.second + 65536);
}
