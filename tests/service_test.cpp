#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
#include "service/command_line.h"
#include "service/main_loop.h"
#include "service/main_storage.h"
#include "tests/rows.h"
#include "tests/support.h"
#include "watch/watch_pass.h"

#include <csignal>
#include <functional>
#include <lyra/lyra.hpp>
#include <malloc.h>
#include <syslog.h>
#include <utility>

namespace {

// The clock's readings to come; what happens while the loop sleeps.
std::vector<uint64_t> readings;
size_t next_reading = 0;
std::string history; // per iteration "next due/entries", and "z" where it slept
std::function<void()> during_sleep;

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
static bool hup_during_reload = false;
extern "C" void syslog(int, const char *, ...) {
    if (std::exchange(hup_during_reload, false))
        raise(SIGHUP);
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

const char usage[] = "USAGE:\n  service [-?|-h|--help] [-d|--directory <watch_folder_dir>]\n\n"
                     "Display usage information.\n\nOPTIONS, ARGUMENTS:\n"
                     "  -?, -h, --help          \n  -d, --directory <watch_folder_dir>\n"
                     "                          What directory has the watch folders?\n\n";

const struct line_case {
    const char *name;
    std::vector<const char *> arguments;
    const char *value; // of --directory; of a line that ends the process null
    std::string output;
} line_cases[] = {
    {"None", {}, "", ""},
    {"Word", {"x"}, nullptr, "Unrecognized token: x"},
    {"EmptyWord", {""}, nullptr, "Unrecognized token: "},
    {"UnknownOption", {"--bogus"}, nullptr, "Unrecognized token: --bogus"},
    {"Dashes", {"--", "x"}, nullptr, "Unrecognized token: --"},
    {"ShortWithoutValue", {"-d"}, nullptr, "Expected argument following -d"},
    {"LongWithoutValue", {"--directory"}, nullptr, "Expected argument following --directory"},
    {"NextArgument", {"-d", "/a=b"}, "/a=b", ""},
    {"LongNextArgument", {"--directory", "/a"}, "/a", ""},
    {"AfterEquals", {"--directory=/a=b"}, "/a=b", ""},
    {"ShortAfterEquals", {"-d=/a"}, "/a", ""},
    {"Joined", {"-dfoo"}, "foo", ""},
    {"EmptyValue", {"--directory="}, "", ""},
    {"ValueLikeAnOption", {"-d", "-h"}, "-h", ""},
    {"Twice", {"-d", "/a", "-d", "/b"}, nullptr, "Unrecognized token: -d"},
    {"WordBehind", {"-d", "/a", "/b"}, nullptr, "Unrecognized token: /b"},
    {"Help", {"-h", "x"}, nullptr, usage},
    {"HelpMark", {"-?"}, nullptr, usage},
    {"HelpLong", {"--help"}, nullptr, usage},
    {"HelpWithValue", {"-h=1"}, nullptr, "Flag option '-h' contains value '1'."},
};

void check_line(const line_case &row) {
    std::vector<const char *> arguments = row.arguments;
    arguments.insert(arguments.begin(), "/usr/sbin/service");
    std::string value;
    const captured_output output(STDOUT_FILENO);
    const captured_output errors;
    const auto status =
        parse_command_line(static_cast<int>(arguments.size()), arguments.data(), value);
    const bool is_help = row.output == usage;
    EXPECT_EQ(output.text(), is_help ? usage : "");
    EXPECT_EQ(errors.text(),
              row.output.empty() || is_help ? "" : "Error in command line: " + row.output + "\n");
    if (row.value != nullptr) {
        EXPECT_FALSE(status);
        EXPECT_EQ(value, row.value);
    } else {
        EXPECT_EQ(status, is_help ? 0 : 1);
    }
}

const bool line_rows = register_rows("CommandLine", line_cases, check_line);

} // namespace

TEST(CommandLine, LyraTakesAnyNumberOfOptions) {
    bool a = false, b = false;
    std::string value;
    auto parser = lyra::cli() | lyra::opt(a)["-a"]("First.") | lyra::opt(b)["-b"]["--bee"] |
                  lyra::opt(value, "v")["-v"];
    const char *arguments[] = {"p", "-abv=1"};
    EXPECT_TRUE(parser.parse(lyra::args(2, arguments)) && a && b && value == "1");
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
    const captured_output lines;
    EXPECT_EQ(run_loop("", clock), early + "369500000/2 429500000/2 z");
    EXPECT_EQ(run_loop(tree.root, clock), early + "369500000/1 429500000/1 z");
    EXPECT_EQ(main_path, realpath_string("/mnt/main"));
    EXPECT_EQ(lines.text().find("main='/gone'"), std::string::npos);
    EXPECT_EQ(lines.text().find("main=''"), std::string::npos) << "no check without the storage";
}

TEST(MainLoop, StopBeforeTheFirstIterationRunsNoCheck) {
    stop_count = 1;
    EXPECT_EQ(run_loop("", {0, 0}), "");
}

TEST(MainLoop, ManySighupsAreOneReload) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, "[event1]\n\"watch path\"='w'\n\"target file\"='t'\n");
    configuration = {{"old", {}}};
    const captured_output lines;
    during_sleep = [] {
        for (int i = 0; i < 3; ++i)
            raise(SIGHUP);
        during_sleep = nullptr;
    };
    EXPECT_EQ(run_loop(tree.root, {0, 0, 1, 2}), "z500000/1 z500000/1 z");
    EXPECT_EQ(configuration.count("event1"), 1U);
    write_file(configuration_path, "[");
    hup_count = 1;
    run_loop("", {0, 0, 1});
    EXPECT_TRUE(configuration.empty());
    EXPECT_EQ(lines.text(), "Reloading config, SIGHUP\nAdded section 'event1'\n"
                            "Reloading config, SIGHUP\n" +
                                configuration_path +
                                ": TOML parse error: Unexpected end of table at line 1\n"
                                "Warning: Configuration load failure\n");
}

TEST(MainLoop, SighupDuringTheReloadIsOneMoreReload) {
    configuration_path = "/gone";
    const captured_output lines;
    hup_during_reload = true;
    hup_count = 1;
    run_loop("", {0, 0, 1, 2, 3});
    const std::string text = lines.text();
    const std::string line = "Reloading config, SIGHUP\n";
    const size_t first = text.find(line), last = text.rfind(line);
    EXPECT_NE(first, last);
    EXPECT_EQ(text.find(line, first + 1), last) << "two reloads in all";
}

TEST(Signals, TheTenthStopSignalAborts) {
    stop_count = 0;
    install_signal_handlers();
    for (const int number :
         {SIGINT, SIGTERM, SIGQUIT, SIGTERM, SIGTERM, SIGTERM, SIGINT, SIGTERM, SIGTERM})
        raise(number);
    EXPECT_EQ(stop_count, 9U);
    EXPECT_EXIT(raise(SIGINT), testing::KilledBySignal(SIGABRT), "");
    stop_count = 0;
}

// Passes with deliveries, reloads and rescans mixed in: descriptors and memory stay as after the
// first 50.
TEST(LongLife, FiveHundredPasses) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, "[event]\n'watch path'='" + (tree / "Upload/A").string() +
                                       "'\n'match pattern'=''\n'target file'='" +
                                       (tree / "Play/A").string() + "'\n");
    fs::create_directories(tree / "Upload/A");
    configuration = build_directory_configuration(tree.root);
    constexpr uint64_t passes = 500;
    size_t delivered = 0, descriptors = 0, memory = 0;
    uint64_t pass = 0;
    during_sleep = [&] {
        ++pass;
        main_path = fs::canonical(tree.root).parent_path();
        write_file(tree / "Upload/A" / ("n" + std::to_string(pass)), "new");
        check_watch_entries();
        delivered += fs::is_empty(tree / "Upload/A") ? 1U : 0U;
        fs::remove_all(tree / "Play/ARCHIVE");
        if (pass % 7 == 0)
            raise(SIGHUP);
        if (pass == 50) {
            descriptors = open_descriptors();
            memory = mallinfo2().uordblks;
        }
        if (pass == passes) {
            EXPECT_EQ(open_descriptors(), descriptors);
            EXPECT_LE(mallinfo2().uordblks, memory + 65536);
            raise(SIGTERM);
        }
    };
    std::vector<uint64_t> clock; // a rescan every eighth iteration, a check every second one
    for (uint64_t n = 0; n < 4 * passes; ++n)
        clock.push_back(n * 40000000);
    {
        const captured_output lines;
        run_loop(tree.root, clock);
    }
    during_sleep = nullptr;
    EXPECT_EQ(pass, passes);
    EXPECT_EQ(delivered, passes);
}
