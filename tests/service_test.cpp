// Lives of the service: main() on a clock of its own. In each of many, one call fails with an
// error, or the process is killed there: nothing is lost, doubled, cut or left open, and the next
// life ends the delivery. The linker leads the calls of our objects here (--wrap).
#include "config/configuration_load.h"
#include "platform/include/process_util.h"
#include "service/main_loop.h"
#include "service/single_instance.h"
#include "tests/support.h"

#include <boost/preprocessor/seq/for_each.hpp>
#include <iostream>
#include <malloc.h>
#include <syslog.h>

int service_main(int argc, char **argv); // main() of the service

constexpr unsigned int samples_per_call = 12;
constexpr int cut_short = -1, killed = -2; // besides errno values

// The calls of a life, in memory shared with its process.
struct call_log {
    bool came;           // the call of the fault was among them
    char names[1 << 24]; // each with a blank after it
} *const calls = static_cast<call_log *>(
    mmap(nullptr, sizeof(call_log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

struct fault {
    const char *call;
    unsigned int nth; // of the calls of that name
    int what;         // an errno value, or one of the above
};
char *log_end = calls->names;
const fault *wanted; // null: the calls are not counted
unsigned int seen, sleeps;

// Returns the errno value with which the call has to fail. Otherwise the call is made; cut_short
// limits it to one byte.
int begin_call(const char *name) {
    if (wanted == nullptr)
        return 0;
    log_end = stpcpy(stpcpy(log_end, name), " ");
    if (strcmp(name, wanted->call) != 0 || ++seen != wanted->nth)
        return 0;
    calls->came = true;
    if (wanted->what == killed)
        kill(getpid(), SIGKILL);
    return wanted->what;
}

// Integers and pointers are passed alike, so one definition fits all calls: more arguments than a
// call has do no harm. A close that fails has closed all the same. Each path that is resolved is
// that of the main storage, which is the working folder.
#define WRAP_WITH(name, failure)                                                                   \
    extern "C" long __real_##name(...);                                                            \
    extern "C" long __wrap_##name(long a, long b, long c, long d, long e) {                        \
        const int error = begin_call(#name);                                                       \
        const bool is_called = error <= 0 || strstr(#name, "close") != nullptr;                    \
        const long first = strcmp(#name, "realpath") == 0 ? reinterpret_cast<long>(".") : a;       \
        const long third = error == cut_short ? 1 : c;                                             \
        const long result = is_called ? __real_##name(first, b, third, d, e) : 0;                  \
        errno = error > 0 ? error : errno;                                                         \
        return error > 0 ? (failure) : result;                                                     \
    }
#define WRAP(unused, failure, name) WRAP_WITH(name, failure)

BOOST_PP_SEQ_FOR_EACH(WRAP, 0, (opendir)(readdir)(fopen)(realpath)(calloc))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (close)(fclose)(open)(openat)(stat)(lstat)(fstat)(fstatat)(statx))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1,
                      (fstatfs)(mkdirat)(renameat)(renameat2)(unlinkat)(unlink)(readlink)(flock))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (readlinkat)(read)(write)(getdents64)(fsync)(fchown)(fchmod)(fcntl))

uint64_t now, step_us = 1000000;
std::vector<uint64_t> readings; // of the clock that are to come, SIGTERM at the last
std::function<void()> during_sleep, during_reload = [] {};

uint64_t monotonic_clock_us() {
    if (readings.empty())
        return now += step_us;
    now = readings.front();
    readings.erase(readings.begin());
    if (readings.empty())
        raise(SIGTERM);
    return now;
}

extern "C" unsigned int sleep(unsigned int) {
    fprintf(stderr, "z\n");
    during_sleep();
    return 0;
}

// Between two tries to take a lease.
extern "C" int nanosleep(const timespec *, timespec *) {
    return 0;
}

// In place of the machine's log. Between the records of start and stop no descriptor is left open.
extern "C" void syslog(int priority, const char *, ...) {
    static const auto before = open_descriptors();
    if (priority == LOG_NOTICE)
        during_reload();
    else
        EXPECT_EQ(open_descriptors(), before);
}

const std::string in_place = "Play/A", arriving = "Upload/A/n\\\n.mxf", new_media = "the new media";
const std::string metadata_in_place = "Play/.A.metadir/metadata";
const std::string recorded = "original filename=n\\\\\\n.mxf\n";
const std::string event = "[event]\n'watch path' = 'Upload/A'\n'match pattern' = ['x', 'mxf$']\n"
                          "'target file' = 'Play/A'\n";
const file_tree first = {{"Play/other", "other"}, {arriving, new_media}};
const file_tree replacement = {
    {in_place, "the old media"},
    {"Play/ARCHIVE/old.mxf", "archived before"},
    {metadata_in_place, "original filename=old.mxf\ncodec=a\\nb\n"},
    {"Upload/A/.n\\\n.mxf.metadir/metadata", "title=evening\n\nno value\n"},
    {arriving, new_media}};

const struct scenario {
    const char *name;
    file_tree before;
    const char *line;      // printed in at least one run
    std::string held = {}; // open in the test and in the life, which then looks at every process
} scenarios[] = {
    {"FirstDelivery", first, "Cannot make ARCHIVE directory, Input/output error\n"},
    {"Replacement", replacement, "Cannot move NEW file into directory, Invalid cross-device"},
    {"ArrivingFileInUse", first, "File source 'Upload/A/n\\\n.mxf' is in use, not acting",
     arriving},
    {"TargetInUse", replacement, "File 'Play/A' is in use, not acting\n", in_place},
};

// A life in the working folder, in a child process. Unless `begin` says otherwise: start, check,
// reload, check, stop. Its status is 0 only if every check in it held.
int status_of_life(
    const std::function<void()> &begin = [] {}, const char *option = "") {
    const auto live = [&] {
        dup2(open("errors", O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
        std::cout.setstate(std::ios::failbit);
        configuration_path = "event.toml";
        pid_file_path = "pid";
        during_sleep = [] {
            now += check_interval_us;
            raise(sleeps++ == 0 ? SIGHUP : SIGTERM);
        };
        // Other lives of this program may run, so the lock is that of another file.
        instance_lock_fd = open("event.toml", O_RDONLY | O_CLOEXEC);
        std::string words = option;
        char *arguments[] = {words.data(), words.data()};
        begin();
        service_main(words.empty() ? 1 : 2, arguments);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    };
    return child_process(live).status();
}

// All files and their metadata are there, whole and once.
void expect_whole(const scenario &row, bool has_ended, bool was_killed) {
    file_tree files = tree_of(".");
    EXPECT_TRUE(files.erase("Play/.A.metadir/.metadata.new") == 0 || was_killed);
    for (const auto &[name, text] : row.before) {
        int copies = 0;
        for (const auto &[place, content] : files)
            copies += content == text || content == text + recorded ? 1 : 0;
        EXPECT_EQ(copies, 1) << text;
    }
    EXPECT_TRUE(files[in_place] == new_media || (!has_ended && files[arriving] == new_media));
    EXPECT_TRUE(!has_ended || was_killed || has(files["errors"], "Target meta save fail\n") ||
                has(files[metadata_in_place], recorded));
}

// Three lives: one with the fault, one that ends the delivery, one with another file. Returns what
// the first printed.
std::string run_one(const scenario &row, const fault &fault) {
    SCOPED_TRACE(fault.call + std::to_string(fault.nth) + " " + std::to_string(fault.what));
    const temporary_tree tree{{"event.toml", event}};
    make_tree(".", row.before);
    calls->came = false;
    unique_fd held(open(row.held.c_str(), O_RDONLY | O_CLOEXEC)); // the life inherits it
    const int status = status_of_life([&] { wanted = &fault; });
    held.reset();
    const bool is_killed = fault.what == killed && calls->came;
    std::string lines = read_file("errors");
    EXPECT_EQ(status, is_killed ? SIGKILL : 0) << lines;
    EXPECT_EQ(lines.find("already running"), std::string::npos);
    EXPECT_EQ(lines.find("may not be noticed"), lines.rfind("may not be noticed")) << "once";
    EXPECT_TRUE(row.held.empty() || fs::exists(arriving) ||
                has(lines, "Warning: a file in use may not be noticed"));
    expect_whole(row, false, is_killed);
    EXPECT_EQ(status_of_life(), 0);
    expect_whole(row, true, is_killed);
    write_file("Upload/A/third.mxf", "third");
    EXPECT_EQ(status_of_life(), 0);
    EXPECT_EQ(read_file(in_place), "third");
    return lines;
}

// Of a name that is called often only some calls fail: most look at other processes, and are alike.
void run_all(const scenario &row) {
    std::string lines = run_one(row, {"", 0, 0});
    // Without these a crash of the machine could lose the metadata.
    EXPECT_TRUE(!row.held.empty() || has(calls->names, "fsync renameat fsync"));
    std::istringstream log(calls->names);
    std::map<std::string, unsigned int> counts;
    for (std::string name; log >> name;)
        ++counts[name];
    unsigned int errors = 0, kills = 0;
    for (const auto &[name, count] : counts)
        for (unsigned int nth = 1; nth <= count && !testing::Test::HasFailure();
             nth += 1 + (count - 1) / samples_per_call)
            for (const int what : {killed, cut_short, EIO, EACCES, ENOMEM, EXDEV, EINTR}) {
                if (what == cut_short && name != "read" && name != "write")
                    continue;
                lines += run_one(row, {name.c_str(), nth, what});
                (what == killed ? kills : errors) += calls->came ? 1U : 0U;
            }
    std::cout << errors << " errors, " << kills << " kills\n";
    EXPECT_TRUE(errors > 375 && kills > 50);
    EXPECT_TRUE(has(lines, row.line));
}

const bool registered = register_rows("Faults", scenarios, run_all);

// A life in a new folder: "C" is a check, "e" an entry that is visited, "z" a sleep, "R" a reload.
std::string steps_of_life(const std::function<void()> &begin, const char *option = "") {
    const temporary_tree tree{{"Upload/A/", ""}, {"Play/", ""}, {"event.toml", event}};
    EXPECT_EQ(status_of_life(begin, option), 0);
    const std::regex line("(?:([zR])|(C)hecking[.]|Checking '(e))?.*\n");
    return std::regex_replace(read_file("errors"), line, "$1$2$3");
}

TEST(MainLoop, KeepsDueTimesAndRescansInDirectoryMode) {
    const auto begin = [] {
        // start | not due | due | early | due | 70 s late | early | due | 59 s late | early | due |
        // just under 59 s late | early | due | stop
        readings = {0,         0,         500000,    60499999,  60500000,
                    190500000, 250499999, 250500000, 369500000, 429499999,
                    429500000, 548499999, 549499998, 549500000, 549500001};
        during_sleep = [] { fs::create_directory("Upload/B"); };
    };
    EXPECT_EQ(steps_of_life(begin), "zCezCeCezCeCezCeCezCez");
    EXPECT_EQ(steps_of_life(begin, "-d."), "zCezCeCezCeCeezCeeCeezCeez");
}

TEST(MainLoop, NoCheckWithoutTheStorageNorAfterAnEarlyStop) {
    const fault gone{"realpath", 2, ENOENT};
    EXPECT_EQ(steps_of_life([&] { wanted = &gone; }), "CezRz");
    EXPECT_EQ(steps_of_life([] { stop_count = 1; }), "");
}

TEST(MainLoop, ManySighupsAreOneReloadAndOneDuringItIsAnother) {
    EXPECT_EQ(steps_of_life([] {
                  readings = {0, 0, 0, 500000, 500000};
                  during_sleep = [] {
                      for (; sleeps < 2; ++sleeps)
                          raise(SIGHUP);
                  };
                  // A SIGHUP comes during the first reload; the second one finds no file.
                  during_reload = [] { sleeps++ == 2 ? raise(SIGHUP) : unlink("event.toml"); };
              }),
              "zRzRCz");
}

TEST(Signals, TheTenthStopSignalAborts) {
    stop_count = 8;
    on_stop_signal(SIGINT);
    EXPECT_EXIT(on_stop_signal(SIGINT), testing::KilledBySignal(SIGABRT), "");
    stop_count = 0;
}

// Deliveries, reloads and rescans mixed: the memory stays as after the first 50 passes.
TEST(LongLife, FiveHundredPasses) {
    const auto begin = [] {
        step_us = 40000000;
        during_sleep = [] {
            static size_t before = 0;
            EXPECT_EQ(read_file(in_place), sleeps == 0 ? "" : std::to_string(sleeps));
            fs::remove_all("Play/ARCHIVE");
            write_file(arriving, std::to_string(++sleeps));
            if (sleeps % 7 == 0)
                raise(SIGHUP);
            if (sleeps == 50)
                before = mallinfo2().uordblks;
            if (sleeps == 500)
                raise(SIGTERM);
            EXPECT_TRUE(sleeps < 500 || mallinfo2().uordblks <= before + 65536);
        };
    };
    EXPECT_GT(steps_of_life(begin, "-d.").size(), 1500U);
}
