// Lives of the service: main() on a clock of its own. In each of many, one call
// fails or transfers one byte, or the process is killed there: nothing is lost,
// doubled, cut or left open, and the next life ends the delivery. The linker
// leads the calls of our objects here (--wrap). FAULT="renameat 2 EIO" in the
// environment makes the cases of Faults run that fault alone.
#include "config/configuration_load.h"
#include "platform/include/process_util.h"
#include "service/main_loop.h"
#include "service/single_instance.h"
#include "tests/support.h"

#include <array>
#include <cstring>
#include <iostream>
#include <set>
#include <syslog.h>

int service_main(int argc, char **argv); // main() of the service

// What happens at a call, and the errno value where it fails.
const std::map<std::string, int> kinds = {
    {"killed", 0},      {"one-byte", 0},  {"EIO", EIO},     {"EACCES", EACCES},
    {"ENOMEM", ENOMEM}, {"EXDEV", EXDEV}, {"EINTR", EINTR},
};

// "renameat 2 EIO": the second renameat of the life fails. "count": calls go to
// a file.
std::string wanted;
unsigned int sleeps;

long make_call(const char *name, long (*call)(...), std::array<long, 6> a, long failure) {
    static std::map<std::string, unsigned int> counts;
    if (wanted.empty())
        return std::apply(call, a);
    const std::string place = name + (" " + std::to_string(++counts[name])) + " ";
    if (wanted == "count")
        std::ofstream("calls", std::ios::app) << "call " << place << "\n";
    if (wanted.compare(0, place.size(), place) != 0)
        return std::apply(call, a);
    const std::string kind = wanted.substr(place.size());
    const int error = kinds.at(kind);
    raise(kind == "killed" ? SIGKILL : 0);
    a[2] = kind == "one-byte" ? 1 : a[2];
    // A close that fails has closed all the same.
    const bool is_made = error == 0 || strstr(name, "close") != nullptr;
    const long result = is_made ? std::apply(call, a) : 0;
    errno = error == 0 ? errno : error;
    return error == 0 ? result : failure;
}

// Integers and pointers are passed alike, so one definition fits all calls:
// more arguments than a call has do no harm.
#define WRAP(name, failure)                                                                        \
    extern "C" long __real_##name(...);                                                            \
    extern "C" long __wrap_##name(long a, long b, long c, long d, long e, long f) {                \
        return make_call(#name, __real_##name, {a, b, c, d, e, f}, failure);                       \
    }
WRAPPED_CALLS

// Each path that is resolved is that of the main storage, which is the working
// folder.
extern "C" long __real_realpath(...);
extern "C" long __wrap_realpath() {
    return make_call("realpath", __real_realpath, {reinterpret_cast<long>(".")}, 0);
}

int left_open; // descriptors between the records of start and stop
uint64_t now;
std::vector<std::pair<uint64_t, std::string>> readings; // that are to come, SIGQUIT at the last
void (*during_sleep)(), (*during_reload)() = [] {};

uint64_t monotonic_clock_us() {
    if (readings.empty())
        return now += 1000000;
    now = readings.front().first;
    readings.erase(readings.begin());
    raise(readings.empty() ? SIGQUIT : SIGPIPE);
    std::cerr << ">\n" << now << ":\n";
    return now;
}

extern "C" unsigned int sleep(unsigned int) {
    std::cerr << "> sleep\n";
    during_sleep();
    return 0;
}

// In place of the machine's log, with records of start, reload and stop.
extern "C" void syslog(int priority, const char *, ...) {
    static const auto before = open_descriptors();
    left_open = static_cast<int>(open_descriptors() - before);
    if (priority == LOG_NOTICE)
        during_reload();
}

const std::string event = "[event]\n'watch path' = 'Upload/A'\n"
                          "'match pattern' = ['x', 'mxf$']\n'target file' = 'Play/A'\n";
std::string option; // of the command line

// Runs a life in the working folder, in a child process. Its status is the
// number of descriptors that it left open. Unless `begin` says otherwise:
// start, check, reload, check, stop.
int status_of_life(const std::function<void()> &begin = [] {}) {
    return ChildProcess([&] {
               dup2(open("errors", O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
               std::cout.setstate(std::ios::failbit);
               configuration_path = "event.toml";
               pid_file_path = "pid";
               // Other lives of this program may run, so the lock is that of
               // another file.
               instance_lock_fd = open("event.toml", O_RDONLY | O_CLOEXEC);
               during_sleep = [] {
                   now += check_interval_us;
                   const int signal_number = sleeps++ == 0 ? SIGHUP : SIGTERM;
                   raise(signal_number);
                   raise(signal_number); // which changes nothing
               };
               begin();
               char *arguments[] = {option.data(), option.data()};
               service_main(option.empty() ? 1 : 2, arguments);
               _exit(left_open);
           })
        .status();
}

const std::string in_place = "Play/A", metadata_in_place = "Play/.A.metadir/metadata";
const std::string arriving = "Upload/A/n\\\n.mxf", new_media = "the new media";
const std::string temporary = "Play/.A.metadir/.metadata.new";
const std::string recorded = "original filename=n\\\\\\n.mxf\n";
const std::string warning = "Warning: a file in use may not be noticed";
const FileTree first = {{"event.toml", event}, {"Play/other", "other"}, {arriving, new_media}};
const FileTree replacement = {
    {"event.toml", event},
    {in_place, "the old media"},
    {"Play/ARCHIVE/o\\=.mxf", "archived before"},
    {metadata_in_place, "original filename=o\\=.mxf\ncodec=a\\nb\n"},
    {"Upload/A/.n\\\n.mxf.metadir/metadata", "original size=5\n\nno value\n"},
    {arriving, new_media},
};

const struct Scenario {
    const char *name;
    FileTree before;
    std::string line;      // printed in the run without a fault
    std::string line_then; // and in at least one of the others
    std::string held = {}; // open in the case and in its lives, which then look at every process
} scenarios[] = {
    // Without these syncs a crash of the machine could lose the metadata.
    {"FirstDelivery", first, "call fsync 1 \ncall renameat 4 \ncall fsync 2 \n",
     "Cannot make ARCHIVE directory, Input/output error\n"
     "Cannot access ARCHIVE directory, No such file or directory\n> sleep\n"},
    {"Replacement", replacement, "to replace 'Play/A'\nmetadata 'original filename'='o\\=.mxf'\n",
     "Cannot move NEW file into directory, Invalid cross-device link\n> sleep\n"},
    {"ArrivingFileInUse", first, "File source 'Upload/A/n\\\n.mxf' is in use, not acting\n",
     warning, arriving},
    {"TargetInUse", replacement, "File 'Play/A' is in use, not acting\n", warning, in_place},
};

// Three lives: one with the fault, one that ends the delivery, one with another
// file. Returns what the first printed.
std::string run_lives(const Scenario &row, const std::string &fault) {
    const TemporaryTree tree;
    make_tree(".", row.before);
    UniqueFd held(open(row.held.c_str(), O_RDONLY | O_CLOEXEC)); // the life inherits it
    const int status = status_of_life([&] { wanted = fault; });
    held.reset();
    const std::string lines = read_file("errors");
    const bool is_killed = has(fault, "killed");
    EXPECT_EQ(status, is_killed ? SIGKILL : 0);
    // What cannot be identified counts as another file, on a dead disk say.
    const bool may_be_moved = row.held.empty() || has(fault, "statx");
    EXPECT_TRUE(has(lines, may_be_moved || fs::exists(arriving) ? "" : warning));
    EXPECT_EQ(lines.find(warning), lines.rfind(warning)) << "printed twice";
    EXPECT_LE(fs::remove(temporary), is_killed) << "only a kill may leave it";
    EXPECT_EQ(status_of_life(), 0) << "of the second life";
    EXPECT_EQ(read_file(in_place), new_media);
    for (const auto &[name, text] : row.before) {
        std::vector<std::string> places;
        for (const auto &[place, content] : tree_of("."))
            if (content == text || content == text + recorded)
                places.push_back(place);
        EXPECT_EQ(places.size(), 1U) << name << " is at " << testing::PrintToString(places);
    }
    const bool may_lack_name = is_killed || has(lines, "Target meta save fail\n");
    EXPECT_TRUE(has(read_file(metadata_in_place), may_lack_name ? "" : recorded));
    write_file("Upload/A/third.mxf", "third");
    EXPECT_EQ(status_of_life(), 0) << "of the third life";
    EXPECT_EQ(read_file(in_place), "third");
    if (testing::Test::HasFailure())
        std::cerr << "The first life printed:\n" << lines;
    return lines + read_file("calls");
}

// Every call that the life without a fault makes, failing in every way.
void run_faults(const Scenario &row) {
    if (!row.held.empty() && getpid() != 1)
        GTEST_SKIP() << "needs a pid namespace of its own, which ctest makes where it may";
    std::string lines = run_lives(row, "count");
    ASSERT_FALSE(testing::Test::HasFailure()) << "without a fault";
    ASSERT_TRUE(has(lines, row.line));
    std::set<std::string> faults;
    std::istringstream words(lines);
    for (std::string word, name, number; words >> word;)
        if (word == "call" && words >> name >> number)
            for (const auto &[kind, error] : kinds)
                if (kind != "one-byte" || name == "read" || name == "write")
                    faults.insert(name + " " + number + " " + kind);
    EXPECT_GT(faults.size(), 500U);
    const char *alone = getenv("FAULT");
    if (alone != nullptr) {
        ASSERT_EQ(faults.count(alone), 1U) << alone;
        faults = {alone};
    }
    for (const std::string &fault : faults) {
        const int error = kinds.at(fault.substr(fault.rfind(' ') + 1));
        SCOPED_TRACE(fault + ": " + (error == 0 ? "" : strerror(error)) +
                     "\nThis one alone: FAULT='" + fault +
                     "' ctest --test-dir build -V -R Faults." + row.name);
        lines += run_lives(row, fault);
        if (testing::Test::HasFailure())
            return;
    }
    EXPECT_TRUE(has(lines, alone == nullptr ? row.line_then : ""));
}

const bool registered = register_rows("Faults", scenarios, run_faults);

// The steps of a life in a new folder, in which each reading of the clock
// begins a line, and the PID file that is left.
std::string steps_of_life(const std::function<void()> &begin) {
    const TemporaryTree tree{
        {"Upload/A/", ""}, {"Play/", ""}, {"event.toml", event}, {"pid", "of another"}};
    EXPECT_EQ(status_of_life(begin), 0);
    const std::regex step("> ?(\n?.+)\n|(Check)ing[.]|Checking '(event)|(Reload)ing");
    const auto only = std::regex_constants::format_no_copy;
    return std::regex_replace(read_file("errors"), step, " $1$2$3$4", only) + read_file("pid");
}

TEST(MainLoop, KeepsDueTimesAndRescansInDirectoryMode) {
    const decltype(readings) rows = {
        {0, ""}, // the start
        {499999, " sleep"},
        {500000, " Check event"},
        {60500000, " Check event"},
        {179500000, " Check event"}, // 59 s late: counted anew
        {239499999, " sleep"},
        {239500000, " Check event"},
        {358499999, " Check event event"}, // not quite 59 s late; rescanned, again in 300 s
        {359499999, " sleep"},
        {359500000, " Check event event"},
        {600000000, " Check event event"}, // three minutes late
        {658499999, " sleep"},
        {660000000, " Check event event event"},
    };
    const auto begin = [&] {
        option = "-d.";
        readings = rows;
        during_sleep = [] { write_file("Upload/" + std::to_string(sleeps++ / 2) + "/", ""); };
    };
    std::string text;
    for (const auto &[us, steps] : rows)
        text += " \n" + std::to_string(us) + ":" + steps;
    EXPECT_EQ(steps_of_life(begin), text + "of another");
}

TEST(MainLoop, NoCheckWithoutTheStorageNorAfterAnEarlyStop) {
    EXPECT_EQ(steps_of_life([] { wanted = "realpath 2 EIO"; }), " Check event sleep Reload sleep");
    EXPECT_EQ(steps_of_life([] { stop_count = 1; }), "");
}

TEST(MainLoop, ManySighupsAreOneReloadAndOneDuringItIsAnother) {
    // The first reload finds no file any more.
    const auto unlink_and_raise = [] { raise(unlink("event.toml") == 0 ? SIGHUP : 0); };
    EXPECT_EQ(steps_of_life([&] { during_reload = unlink_and_raise; }),
              " Check event sleep Reload Check Reload sleep");
}

TEST(Signals, TheTenthStopSignalAborts) {
    stop_count = 8;
    on_stop_signal(SIGINT);
    EXPECT_EXIT(on_stop_signal(SIGINT), testing::KilledBySignal(SIGABRT), "");
    stop_count = 0;
}
