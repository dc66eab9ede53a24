// Lives of the service in which one call fails, with each error that fits, or is the place of a
// kill: nothing is lost, doubled, cut or left open, and the next life ends the delivery. The linker
// leads the calls of our objects here (--wrap).
#include "config/configuration_load.h"
#include "platform/include/process_util.h"
#include "service/single_instance.h"
#include "tests/support.h"

#include <boost/preprocessor/seq/for_each.hpp>

int service_main(int argc, char **argv); // main() of the service

constexpr unsigned int most_of_a_name = 16;
constexpr int cut_short = -1, killed = -2; // besides errno values

// The calls of a life, shared with the process in which that is.
struct call_log {
    size_t count;
    const char *names[65536];
    bool came; // the call of the fault was among them
} *const calls = static_cast<call_log *>(
    mmap(nullptr, sizeof(call_log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

struct fault {
    const char *call; // as in the log
    unsigned int nth; // of the calls of that name
    int what;         // an errno value, or one of the above
};
const fault *wanted; // null: the calls are not counted
bool is_on;
unsigned int seen, sleeps;
uint64_t now;

// What to do instead of the call, or 0 to go on.
int begin_call(const char *name) {
    if (!is_on)
        return 0;
    if (calls->count < std::size(calls->names))
        calls->names[calls->count++] = name;
    if (name != wanted->call || ++seen != wanted->nth)
        return 0;
    calls->came = true;
    if (wanted->what == killed)
        kill(getpid(), SIGKILL);
    return wanted->what;
}

// The path of the service's program or of the main storage as this test has them.
long redirected(long path) {
    const char *text = reinterpret_cast<const char *>(path);
    const bool is_program = strcmp(text, "/proc/self/exe") == 0;
    is_on = is_on || (is_program && wanted != nullptr); // from the lock on
    text = is_program ? "program" : strcmp(text, "/mnt/main") == 0 ? "." : text;
    return reinterpret_cast<long>(text);
}

// Integers and pointers are passed alike, so one definition fits all calls: more arguments than a
// call has do no harm. A close that fails has closed all the same.
#define WRAP_WITH(name, failure, first, third)                                                     \
    extern "C" long __real_##name(...);                                                            \
    extern "C" long __wrap_##name(long a, long b, long c, long d, long e) {                        \
        const int error = begin_call(#name);                                                       \
        const bool is_called = error <= 0 || strstr(#name, "close") != nullptr;                    \
        const long result = is_called ? __real_##name(first, b, third, d, e) : 0;                  \
        errno = error > 0 ? error : errno;                                                         \
        return error > 0 ? failure : result;                                                       \
    }
#define WRAP(unused, failure, name) WRAP_WITH(name, failure, a, c)

WRAP_WITH(open, -1, redirected(a), c)
WRAP_WITH(realpath, 0, redirected(a), c)
WRAP_WITH(read, -1, a, error == cut_short ? 1 : c)
WRAP_WITH(write, -1, a, error == cut_short ? 1 : c)
BOOST_PP_SEQ_FOR_EACH(WRAP, 0, (opendir)(readdir)(fopen)(calloc))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (close)(fclose)(openat)(stat)(lstat)(fstat)(fstatat)(statx))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (fstatfs)(mkdirat)(renameat)(unlinkat)(unlink)(readlink))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (readlinkat)(getdents64)(fsync)(fchown)(fchmod)(flock)(fcntl))

// The first sleep raises SIGHUP, the second SIGTERM, and each ends after the next check is due.
extern "C" unsigned int sleep(unsigned int) {
    now += 301000000;
    raise(sleeps++ == 0 ? SIGHUP : SIGTERM);
    return 0;
}

uint64_t monotonic_clock_us() {
    return now += 1000000;
}

extern "C" void syslog(int, const char *, ...) {} // nothing goes into the machine's log

// Not inlined: the compiler would take malloc and delete, or new and free, for a mismatch.
[[gnu::noinline]] void *operator new(size_t size) {
    void *memory = begin_call("operator new") > 0 ? nullptr : malloc(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void operator delete(void *memory) noexcept {
    free(memory);
}
void operator delete(void *memory, size_t) noexcept {
    operator delete(memory);
}

const std::string in_place = "play/t.mxf", arriving = "watch/n.mxf", new_media = "the new media";
const std::string metadata_in_place = "play/.t.mxf.metadir/metadata";
const std::string recorded = "original filename=n.mxf\n";
const std::string event = "[event]\n'watch path' = 'watch'\n'match pattern' = ['x', 'mxf$']\n"
                          "'target file' = 'play/t.mxf'\n";
const file_tree first = {{"play/other", "other"}, {arriving, new_media}};
const file_tree replacement = {{in_place, "the old media"},
                               {"play/ARCHIVE/old.mxf", "archived before"},
                               {metadata_in_place, "original filename=old.mxf\ncodec=a\\nb\n"},
                               {"watch/.n.mxf.metadir/metadata", "title=evening\n\nno value\n"},
                               {arriving, new_media}};

const struct scenario {
    const char *name;
    file_tree before;
    const char *line; // that some run prints
    int holders = 0;  // of the file that arrives: the service, and another process
} scenarios[] = {
    {"FirstDelivery", first, "* scan not completed, std::bad_alloc\n"},
    {"Replacement", replacement, "Cannot move NEW file into directory, Invalid cross-device"},
    {"FileThatTheServiceHasOpen", first, "Cannot make ARCHIVE directory, Input/output", 1},
    {"FileInUse", first, "Warning: a file in use may not be noticed", 2},
};

// A life of the service, in the working folder: start, check, reload, check, stop.
void live(int holders, const fault *fault) {
    const auto hold = [] { return open(arriving.c_str(), O_RDONLY | O_CLOEXEC); };
    const child_process other([&] { holders > 1 ? hold() : 0; });
    const unique_fd own(holders > 0 ? hold() : -1);
    dup2(open("errors", O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
    std::cout.setstate(std::ios::failbit);
    configuration_path = "event.toml";
    pid_file_path = "pid";
    wanted = fault;
    std::string program;
    char *arguments[] = {program.data()};
    alarm(20); // nothing waits
    const auto before = open_descriptors();
    const int status = service_main(1, arguments);
    is_on = false;
    close(instance_lock_fd);
    EXPECT_LE(open_descriptors(), before);
    const std::string lines = read_file("errors");
    EXPECT_TRUE(status == 1 || has(lines, "exiting\n") || has(lines, "Reloading config, SIGHUP\n"));
    EXPECT_TRUE(!fs::exists("pid") || (fault != nullptr && strcmp(fault->call, "unlink") == 0));
    EXPECT_TRUE(holders < 2 || fs::exists(arriving) || has(lines, "may not be noticed"));
}

// The status of a process that lives, and that fails where a check in it does.
int status_of_life(int holders = 0, const fault *fault = nullptr) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        [&]() noexcept { live(holders, fault); }(); // an exception ends the process
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

// All files and their metadata are there, whole and once.
void expect_whole(const scenario &row, bool has_ended, bool was_killed) {
    file_tree files = tree_of(".");
    EXPECT_TRUE(files.erase("play/.t.mxf.metadir/.metadata.new") == 0 || was_killed);
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

// Three lives: with the fault, to end the delivery, and with another file. What the first printed.
std::string run_one(const scenario &row, const fault &fault) {
    SCOPED_TRACE(fault.call + std::to_string(fault.nth) + " " + std::to_string(fault.what));
    const temporary_tree tree;
    fs::current_path(tree.root);
    make_tree(".", row.before);
    make_tree(".", {{"program", "program"}, {"event.toml", event}});
    calls->count = 0;
    calls->came = false;
    const int status = status_of_life(row.holders, &fault);
    const bool is_killed = fault.what == killed && calls->came;
    const std::string lines = read_file("errors");
    EXPECT_EQ(status, is_killed ? SIGKILL : 0) << lines;
    expect_whole(row, false, is_killed);
    EXPECT_EQ(status_of_life(), 0);
    expect_whole(row, true, is_killed);
    write_file("watch/third.mxf", "third");
    EXPECT_EQ(status_of_life(), 0);
    EXPECT_EQ(read_file(in_place), "third");
    return lines;
}

std::vector<int> faults_that_fit(const std::string &call) {
    if (call == "operator new" || call == "calloc")
        return {killed, ENOMEM};
    if (call == "read" || call == "write")
        return {killed, EIO, ENOSPC, EINTR, cut_short};
    return {killed, EIO, EACCES, ENOMEM, EXDEV, EINTR};
}

// Of many calls of a name some: those that look at other processes are much alike.
void run_all(const scenario &row) {
    run_one(row, {"", 0, 0});
    std::map<const char *, unsigned int> counts;
    std::string order, lines;
    for (size_t at = 0; at < calls->count; ++at) {
        ++counts[calls->names[at]];
        order += std::string(calls->names[at]) + " ";
    }
    EXPECT_TRUE(row.holders > 1 || has(order, "fsync renameat fsync")) << "a crash would lose it";
    unsigned int errors = 0, kills = 0;
    for (const auto &[name, count] : counts)
        for (unsigned int nth = 1; nth <= count; nth += 1 + count / most_of_a_name)
            for (const int what : faults_that_fit(name)) {
                lines += run_one(row, {name, nth, what});
                (what == killed ? kills : errors) += calls->came ? 1U : 0U;
            }
    std::cout << errors << " errors, " << kills << " kills\n";
    EXPECT_TRUE(errors > 375 && kills > 50);
    EXPECT_TRUE(has(lines, row.line));
}

const bool registered = register_rows("Faults", scenarios, run_all);
