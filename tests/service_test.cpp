#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "platform/process_util.h"
#include "service/command_line.h"
#include "service/main_loop.h"
#include "service/main_storage.h"
#include "tests/support.h"

#include <csignal>
#include <gtest/gtest.h>
#include <lyra/lyra.hpp>
#include <sstream>

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

extern "C" void syslog(int, const char *text, ...) noexcept {
    history += text;
}

// What a build with fortified functions calls instead.
extern "C" void __syslog_chk(int, int, const char *text, ...) noexcept {
    history += text;
}

namespace {

std::string run_loop(const std::string &directory, std::vector<uint64_t> clock) {
    readings = std::move(clock);
    next_reading = 0;
    history.clear();
    stop_count = 0;
    install_signal_handlers();
    run_main_loop(directory);
    return history;
}

} // namespace

TEST(CommandLine, UnderstandsWhatLyraUnderstands) {
    const std::string usage =
        "USAGE:\n  service [-?|-h|--help] [-d|--directory <watch_folder_dir>]\n\n"
        "Display usage information.\n\nOPTIONS, ARGUMENTS:\n  -?, -h, --help          \n"
        "  -d, --directory <watch_folder_dir>\n                          "
        "What directory has the watch folders?\n\n";
    std::ifstream file(TEST_CASES "/command_lines.txt");
    int rows = 0;
    std::string row;
    for (std::getline(file, row); std::getline(file, row); ++rows) {
        const size_t arrow = row.find(" => ");
        const std::string result = row.substr(arrow + 4);
        std::istringstream words(row.substr(0, arrow));
        std::vector<std::string> arguments = {"/usr/sbin/service"};
        for (std::string word; words >> word;)
            arguments.push_back(word == "''" ? "" : word);
        std::vector<const char *> argv;
        for (const std::string &argument : arguments)
            argv.push_back(argument.c_str());
        std::string value;
        const captured_output errors;
        std::ostringstream text;
        std::streambuf *saved = std::cout.rdbuf(text.rdbuf());
        const auto status = parse_command_line(static_cast<int>(argv.size()), argv.data(), value);
        std::cout.rdbuf(saved);
        const bool fails = result[0] == '!', helps = result == "help";
        EXPECT_EQ(status.value_or(-1), fails ? 1 : helps ? 0 : -1) << row;
        EXPECT_EQ(text.str(), helps ? usage : "") << row;
        EXPECT_EQ(errors.text(), fails ? "Error in command line: " + result.substr(1) + "\n" : "");
        EXPECT_TRUE(status || value == result) << row << value;
    }
    EXPECT_GE(rows, 32);
}

TEST(Lyra, TakesAnyNumberOfOptionsAndFlags) {
    bool a = false, b = false;
    std::string value;
    auto parser = lyra::cli() | lyra::opt(a)["-a"]("First.") | lyra::opt(b)["-b"]["--bee"] |
                  lyra::opt(value, "v")["-v"];
    const char *arguments[] = {"p", "-abv=1"};
    EXPECT_TRUE(static_cast<bool>(parser.parse(lyra::args(2, arguments))));
    EXPECT_TRUE(a && b && value == "1");
    std::ostringstream usage;
    usage << parser;
    EXPECT_EQ(usage.str(), "USAGE:\n  p [-a] [-b|--bee] [-v <v>]\n\nOPTIONS, ARGUMENTS:\n"
                           "  -a                      First.\n  -b, --bee               \n"
                           "  -v <v>                  \n");
}

TEST(MainStorage, PathsLieStrictlyBelow) {
    const struct {
        const char *main, *path;
        bool below;
    } rows[] = {{"/data/main", "/data/main/x", true},   {"/data/main", "/data/main/", true},
                {"/data/main", "/data/main", false},    {"/data/main", "/data/mainx/y", false},
                {"/data/main", "/Data/main/x", false},  {"/", "/x", false},
                {"/data/main", "/mnt/main/xyz", false}, {"/data/main", "", false}};
    for (const auto &row : rows) {
        main_path = row.main;
        EXPECT_EQ(is_under_main_path(row.path), row.below) << row.path;
        EXPECT_EQ(is_under_main_path(std::string(row.path)), row.below) << row.path;
    }
    const temporary_tree tree;
    fs::create_directory_symlink(tree.root, tree / "link");
    EXPECT_EQ(realpath_string(tree / "link/."), fs::canonical(tree.root).string());
    EXPECT_EQ(realpath_string(tree / "gone"), "");
}

TEST(MainLoop, KeepsTheGridAndRescansInDirectoryMode) {
    const temporary_tree tree;
    fs::create_directories(tree / "Upload/A");
    // start | not due | first check | a moment early | on the grid | 70 s late | 59 s late |
    // just under 59 s late | stop
    const std::vector<uint64_t> clock = {0,         0,         1000000,   60499999, 60500000,
                                         190500000, 309500000, 428499999, 428500000};
    for (const bool directory_mode : {false, true}) {
        configuration.clear();
        for (const char *name : {"a", "b"})
            configuration[name].name = name;
        const std::string n = directory_mode ? "/1 " : "/2 ";
        EXPECT_EQ(run_loop(directory_mode ? tree.root.string() : "", clock),
                  "z500000/2 60500000/2 z60500000/2 120500000/2 250500000/2 369500000" + n +
                      "429500000" + n + "z")
            << directory_mode;
    }
}

TEST(MainLoop, ManySighupsAreOneReload) {
    const temporary_tree tree;
    configuration_path = tree / "c.toml";
    write_file(configuration_path, "[event1]\n\"watch path\"='w'\n\"target file\"='t'\n");
    configuration.clear();
    configuration["old"].name = "old";
    const std::string log = "Velora watch folder service received SIGHUP, reloading configuration";
    const captured_output lines;
    hups_during_sleep = 3;
    EXPECT_EQ(run_loop(tree.root, {0, 0, 1, 2}), "z" + log + "500000/1 z500000/1 z");
    EXPECT_EQ(configuration.count("event1"), 1U);
    write_file(configuration_path, "[");
    hups_during_sleep = 1;
    run_loop("", {0, 0, 1});
    EXPECT_TRUE(configuration.empty());
    EXPECT_EQ(lines.text(), "Reloading config, SIGHUP\nAdded section 'event1'\n"
                            "Reloading config, SIGHUP\n" +
                                configuration_path +
                                ": TOML parse error: Unexpected end of table at line 1\n"
                                "Warning: Configuration load failure\n");
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
