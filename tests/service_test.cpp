#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
#include "service/command_line.h"
#include "service/main_loop.h"
#include "service/main_storage.h"
#include "tests/support.h"

#include <csignal>
#include <gtest/gtest.h>
#include <lyra/lyra.hpp>
#include <syslog.h>
#include <wordexp.h>

namespace {

// The clock's readings to come, and the moment at which each happens.
std::vector<uint64_t> readings;
size_t next_reading = 0;
std::string history; // per iteration "next due/entries", and "z" where it slept
int hups_during_sleep = 0;

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
    for (; hups_during_sleep > 0; --hups_during_sleep)
        raise(SIGHUP);
    return 0;
}

namespace {

std::string run_loop(const std::string &directory, std::vector<uint64_t> clock) {
    readings = std::move(clock);
    next_reading = 0;
    history.clear();
    stop_count = 0;
    install_signal_handlers();
    setlogmask(LOG_MASK(LOG_DEBUG)); // nothing of a test goes into the machine's log
    run_main_loop(directory);
    return history;
}

// The value of --directory, or else the exit status; and what was printed, in short.
std::string outcome_of(const std::string &command_line) {
    wordexp_t words{};
    EXPECT_EQ(wordexp(("/usr/sbin/service " + command_line).c_str(), &words, WRDE_NOCMD), 0);
    const captured_output output(STDOUT_FILENO);
    const captured_output errors;
    std::string value;
    const auto status = parse_command_line(static_cast<int>(words.we_wordc), words.we_wordv, value);
    wordfree(&words);
    return (status ? std::to_string(*status) + " " : value) +
           replaced(output.text(), read_file(TEST_CASES "/usage.txt"), "USAGE") +
           replaced(replaced(errors.text(), "Error in command line: ", "!"), "\n", "\\n");
}

} // namespace

TEST(CommandLine, UnderstandsWhatLyraUnderstands) {
    std::ifstream file(TEST_CASES "/command_lines.txt");
    int rows = 0;
    std::string row;
    for (std::getline(file, row); std::getline(file, row); ++rows) {
        const size_t arrow = row.find(" => ");
        EXPECT_EQ(outcome_of(row.substr(0, arrow)), row.substr(arrow + 4)) << row;
    }
    EXPECT_GE(rows, 32);
}

TEST(Lyra, TakesAnyNumberOfOptionsAndFlags) {
    bool a = false, b = false;
    std::string value;
    auto parser = lyra::cli() | lyra::opt(a)["-a"]("First.") | lyra::opt(b)["-b"]["--bee"] |
                  lyra::opt(value, "v")["-v"];
    const char *arguments[] = {"p", "-abv=1"};
    EXPECT_TRUE(parser.parse(lyra::args(2, arguments)) && a && b && value == "1");
    std::ostringstream usage;
    usage << parser;
    EXPECT_EQ(usage.str(), "USAGE:\n  p [-a] [-b|--bee] [-v <v>]\n\nOPTIONS, ARGUMENTS:\n"
                           "  -a                      First.\n  -b, --bee               \n"
                           "  -v <v>                  \n");
}

TEST(MainStorage, PathsLieStrictlyBelow) {
    main_path = "/data/main";
    for (const char *path : {"/data/main/x", "/data/main/"})
        EXPECT_TRUE(is_under_main_path(path)) << path;
    for (const char *path : {"/data/main", "/data/mainx/y", "/Data/main/x", "/mnt/main/xyz", ""})
        EXPECT_FALSE(is_under_main_path(path)) << path;
    main_path = "/";
    EXPECT_FALSE(is_under_main_path("/x"));
    EXPECT_EQ(realpath_string("/proc/self/no/.."), "");
}

TEST(MainLoop, KeepsTheGridAndRescansInDirectoryMode) {
    const temporary_tree tree;
    fs::create_directories(tree / "Upload/A");
    // start | not due | first check | a moment early | on the grid | 70 s late | 59 s late |
    // just under 59 s late | stop
    const std::vector<uint64_t> clock = {0,         0,         1000000,   60499999, 60500000,
                                         190500000, 309500000, 428499999, 428500000};
    const std::string early = "z500000/2 60500000/2 z60500000/2 120500000/2 250500000/2 ";
    configuration = {{"a", {}}, {"b", {}}};
    const captured_output lines;
    EXPECT_EQ(run_loop("", clock), early + "369500000/2 429500000/2 z");
    EXPECT_EQ(run_loop(tree.root, clock), early + "369500000/1 429500000/1 z");
    EXPECT_EQ(lines.text().find("main=''"), std::string::npos) << "no check without the storage";
}

TEST(MainLoop, ManySighupsAreOneReload) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, "[event1]\n\"watch path\"='w'\n\"target file\"='t'\n");
    configuration = {{"old", {}}};
    const captured_output lines;
    hups_during_sleep = 3;
    EXPECT_EQ(run_loop(tree.root, {0, 0, 1, 2}), "z500000/1 z500000/1 z");
    EXPECT_EQ(configuration.count("event1"), 1U);
    write_file(configuration_path, "[");
    hups_during_sleep = 1;
    run_loop("", {0, 0, 1});
    EXPECT_TRUE(configuration.empty());
    EXPECT_EQ(replaced(lines.text(), configuration_path, "PATH"),
              read_file(TEST_CASES "/reloads.txt"));
}

TEST(Signals, TheTenthStopSignalAborts) {
    stop_count = 0;
    install_signal_handlers();
    for (const int number :
         {SIGINT, SIGTERM, SIGQUIT, SIGTERM, SIGTERM, SIGTERM, SIGINT, SIGTERM, SIGTERM})
        raise(number);
    EXPECT_EQ(stop_count, 9U);
    EXPECT_EXIT(raise(SIGINT), testing::KilledBySignal(SIGABRT), "");
}
