// Lives of the service in which one call fails, with each error that fits, or is the place of a
// kill: nothing is lost, doubled, cut or left open, and the next life ends the delivery. The linker
// leads the calls of our objects here (--wrap).
#include "config/configuration_load.h"
#include "platform/include/process_util.h"
#include "service/single_instance.h"
#include "tests/support.h"

#include <cstring>
#include <iostream>
#include <sys/vfs.h>

int service_main(int argc, char **argv); // main() of the service

namespace {

constexpr unsigned int most_of_a_name = 8;
constexpr int cut_short = -1, kill_before = -2, kill_after = -3; // besides errno values

struct fault {
    const char *call; // null: calls are not counted; names are those of the log
    unsigned int nth;
    int what;
};

// Shared with the processes in which the lives are.
struct call_log {
    size_t count;
    const char *names[65536];
    bool came; // the call of the fault was among them
} *const calls = static_cast<call_log *>(
    mmap(nullptr, sizeof(call_log), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

fault wanted;
std::string storage_path, program_path;
bool is_on;
unsigned int seen, sleeps;
uint64_t now;

// The errno value to fail with, or one of the above, or 0 to go on.
int begin_call(const char *name) {
    if (!is_on)
        return 0;
    if (calls->count < std::size(calls->names))
        calls->names[calls->count++] = name;
    if (name != wanted.call || ++seen != wanted.nth)
        return 0;
    calls->came = true;
    if (wanted.what == kill_before)
        kill(getpid(), SIGKILL);
    return wanted.what;
}

const char *redirected(const char *path) {
    if (strcmp(path, "/mnt/main") == 0)
        return storage_path.c_str();
    if (strcmp(path, "/proc/self/exe") != 0)
        return path;
    is_on = wanted.call != nullptr; // from the lock on
    return program_path.c_str();
}

} // namespace

// A close that fails has closed all the same.
#define WRAP(type, failure, name, parameters, arguments)                                           \
    extern "C" type __real_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters {                                                     \
        const int error = begin_call(#name);                                                       \
        if (error > 0 && strstr(#name, "close") == nullptr) {                                      \
            errno = error;                                                                         \
            return failure;                                                                        \
        }                                                                                          \
        type result = __real_##name arguments;                                                     \
        if (error == kill_after)                                                                   \
            kill(getpid(), SIGKILL);                                                               \
        errno = error > 0 ? error : errno;                                                         \
        return error > 0 ? (failure) : result;                                                     \
    }

WRAP(int, -1, close, (int fd), (fd))
WRAP(int, -1, fclose, (FILE * stream), (stream))
WRAP(int, -1, open, (const char *path, int flags, mode_t mode), (redirected(path), flags, mode))
WRAP(int, -1, openat, (int at, const char *path, int flags, mode_t mode), (at, path, flags, mode))
WRAP(DIR *, nullptr, opendir, (const char *path), (path))
WRAP(dirent *, nullptr, readdir, (DIR * stream), (stream))
WRAP(FILE *, nullptr, fopen, (const char *path, const char *mode), (path, mode))
WRAP(char *, nullptr, realpath, (const char *path, char *out), (redirected(path), out))
WRAP(int, -1, stat, (const char *path, struct stat *out), (path, out))
WRAP(int, -1, lstat, (const char *path, struct stat *out), (path, out))
WRAP(int, -1, fstat, (int fd, struct stat *out), (fd, out))
WRAP(int, -1, fstatat, (int at, const char *path, struct stat *out, int how), (at, path, out, how))
WRAP(int, -1, statx, (int at, const char *path, int how, unsigned int mask, struct statx *out),
     (at, path, how, mask, out))
WRAP(int, -1, fstatfs, (int fd, struct statfs *out), (fd, out))
WRAP(int, -1, mkdirat, (int at, const char *path, mode_t mode), (at, path, mode))
WRAP(int, -1, renameat, (int from, const char *old, int to, const char *name),
     (from, old, to, name))
WRAP(int, -1, unlinkat, (int at, const char *path, int how), (at, path, how))
WRAP(int, -1, unlink, (const char *path), (path))
WRAP(ssize_t, -1, readlink, (const char *path, char *out, size_t size), (path, out, size))
WRAP(ssize_t, -1, readlinkat, (int at, const char *path, char *out, size_t n), (at, path, out, n))
WRAP(ssize_t, -1, read, (int fd, void *out, size_t size), (fd, out, error < 0 ? 1 : size))
WRAP(ssize_t, -1, write, (int fd, const void *text, size_t size),
     (fd, text, error == cut_short ? 1 : size))
WRAP(ssize_t, -1, getdents64, (int fd, void *out, size_t size), (fd, out, size))
WRAP(int, -1, fsync, (int fd), (fd))
WRAP(int, -1, fchown, (int fd, uid_t uid, gid_t gid), (fd, uid, gid))
WRAP(int, -1, fchmod, (int fd, mode_t mode), (fd, mode))
WRAP(int, -1, flock, (int fd, int how), (fd, how))
WRAP(int, -1, fcntl, (int fd, int command, long argument), (fd, command, argument))
WRAP(void *, nullptr, calloc, (size_t count, size_t size), (count, size))

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
[[gnu::noinline]] void *operator new(size_t size, const std::nothrow_t &) noexcept {
    return begin_call("operator new") > 0 ? nullptr : malloc(size);
}

[[gnu::noinline]] void *operator new(size_t size) {
    if (void *memory = operator new(size, std::nothrow))
        return memory;
    throw std::bad_alloc();
}

[[gnu::noinline]] void operator delete(void *memory) noexcept {
    free(memory);
}

void operator delete(void *memory, size_t) noexcept {
    operator delete(memory);
}

namespace {

const std::string in_place = "play/t.mxf", arriving = "watch/n.mxf";
const std::string metadata_in_place = "play/.t.mxf.metadir/metadata";
const std::string old_metadata = "original filename=old.mxf\ncodec=a\\nb\n";
const std::string new_metadata = "title=evening\n\nno value\n";
const std::string recorded = "original filename=n.mxf\n";
const std::string event = "[event]\n'watch path' = '@/watch'\n'match pattern' = ['x', "
                          "'mxf$']\n'target file' = '@/play/t.mxf'\n";
const file_tree replacement = {{in_place, "the old media"},
                               {"play/ARCHIVE/old.mxf", "archived before"},
                               {metadata_in_place, old_metadata},
                               {"watch/.n.mxf.metadir/metadata", new_metadata}};

struct scenario {
    const char *name;
    file_tree before; // besides the file that arrives
    const char *line; // what some run prints
    int holders = 0;  // of the file that arrives: the service, and another process
    bool on_tree = false;
};
const scenario scenarios[] = {
    {"FirstDelivery", {{"play/", ""}}, "* scan not completed, std::bad_alloc\n"},
    {"Replacement", replacement, "Cannot make ARCHIVE directory, Input/output error\n"},
    {"FolderTree", replacement,
     "Cannot move NEW file into directory, Invalid cross-device link\nReloading config, SIGHUP\n",
     0, true},
};
const scenario walks[] = {
    {"WalkOverTheServicesOwnFile", {{"play/", ""}}, "already=0\n", 1},
    {"WalkOverTheFileOfAnother", {{"play/", ""}}, "Warning: a file in use may not be noticed", 2},
};

// A life of the service: start, check, reload, check, stop. One life a process.
void live(const fs::path &root, const scenario &row, const fault &fault) {
    alarm(20); // nothing waits
    dup2(open((root / "errors").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), STDERR_FILENO);
    std::cout.setstate(std::ios::failbit);
    storage_path = root;
    program_path = root / "program";
    configuration_path = root / "event.toml";
    pid_file_path = root / "pid";
    wanted = fault;
    std::string program, option = "-d" + root.string();
    char *arguments[] = {program.data(), option.data()};
    const auto before = open_descriptors();
    const int status = service_main(row.on_tree ? 2 : 1, arguments);
    is_on = false;
    close(instance_lock_fd);
    EXPECT_LE(open_descriptors(), before);
    const std::string lines = read_file(root / "errors");
    EXPECT_TRUE(status == 1 || lines == "No configuration path, exiting\n" ||
                has(lines, "Reloading config, SIGHUP\n"));
    EXPECT_NE(lines, "");
    const bool stays = fault.call != nullptr && strcmp(fault.call, "unlink") == 0;
    EXPECT_TRUE(stays || !fs::exists(root / "pid"));
}

// The one file with this content; "" when it is not exactly one.
std::string place_of(const file_tree &files, const std::string &content) {
    std::string place;
    for (const auto &[name, text] : files)
        if (text == content && fs::path(name).extension() != ".new")
            place += name;
    return files.count(place) == 1 ? place : "";
}

// Both files and their metadata are there, whole and once.
void expect_whole(const fs::path &root, const scenario &row, bool has_ended, bool was_killed) {
    const file_tree files = tree_of(root);
    const std::string new_file = place_of(files, "the new media");
    EXPECT_TRUE(new_file == in_place || (!has_ended && new_file == arriving)) << new_file;
    const bool is_recorded =
        read_file(root / metadata_in_place).find(recorded) != std::string::npos;
    EXPECT_FALSE(is_recorded && new_file == arriving);
    EXPECT_TRUE(is_recorded || !has_ended || was_killed ||
                has(read_file(root / "errors"), "Target meta save fail\n"));
    if (row.before.count(in_place) == 0)
        return;
    const std::string old_file = place_of(files, "the old media");
    EXPECT_TRUE(old_file.find("play/ARCHIVE/") == 0 || (!has_ended && old_file == in_place))
        << old_file;
    EXPECT_NE(place_of(files, old_metadata), "");
    EXPECT_EQ(place_of(files, "archived before"), "play/ARCHIVE/old.mxf");
    EXPECT_TRUE(was_killed || files.count("play/.t.mxf.metadir/.metadata.new") == 0);
    EXPECT_NE(place_of(files, new_metadata) + place_of(files, new_metadata + recorded), "");
}

// The exit status of a process that runs the function, and that fails where a check in it does.
template<typename Run> int status_of(Run run) {
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        [&]() noexcept { run(); }(); // an exception ends the process, as it would the service
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

// Three lives: with the fault, to end the delivery, and with another file. What the first printed.
std::string run_one(const scenario &row, const fault &fault) {
    SCOPED_TRACE(std::string(fault.call) + std::to_string(fault.nth) + std::to_string(fault.what));
    const temporary_tree tree;
    make_tree(tree.root, row.before);
    make_tree(tree.root, {{arriving, "the new media"}, {"program", ""}, {"Play", "-> play"}});
    make_tree(tree.root,
              {{"Upload/t.mxf", "-> ../watch"}, {"event.toml", replaced(event, "@", tree.root)}});
    calls->count = 0;
    calls->came = false;
    const int status = status_of([&] {
        const auto hold = [&] { return open((tree / arriving).c_str(), O_RDONLY | O_CLOEXEC); };
        const child_process other([&] { row.holders > 1 ? hold() : 0; });
        const unique_fd own(row.holders > 0 ? hold() : -1);
        live(tree.root, row, fault);
        EXPECT_TRUE(row.holders < 2 || fs::exists(tree / arriving) ||
                    has(read_file(tree / "errors"), "Warning: a file in use may not be noticed"));
    });
    std::string lines = read_file(tree / "errors");
    const bool is_killed = fault.what <= kill_before && calls->came;
    EXPECT_TRUE(is_killed ? WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL : status == 0)
        << lines;
    expect_whole(tree.root, row, false, is_killed);
    EXPECT_EQ(status_of([&] { live(tree.root, row, {}); }), 0);
    expect_whole(tree.root, row, true, is_killed);
    write_file(tree / "watch/third.mxf", "third");
    EXPECT_EQ(status_of([&] { live(tree.root, row, {}); }), 0);
    EXPECT_EQ(read_file(tree / in_place), "third");
    return lines;
}

std::vector<int> faults_that_fit(const std::string &call, bool kills) {
    if (call == "operator new" || call == "calloc")
        return {kills ? kill_before : ENOMEM};
    if (kills)
        return {kill_before, kill_after};
    if (call == "renameat")
        return {ENOENT, EIO, ENOSPC, EXDEV, EROFS};
    if (call == "read" || call == "write")
        return {EIO, ENOSPC, EINTR, cut_short};
    return {EIO, EACCES, ENOMEM, EINTR};
}

// The first calls of each name and the last: those that look at other processes are much alike.
template<bool kills> void run_all(const scenario &row) {
    run_one(row, {"", 0, 0});
    const std::vector<const char *> names(calls->names, calls->names + calls->count);
    std::map<const char *, unsigned int> counts;
    unsigned int runs = 0;
    std::string lines;
    for (const char *name : names) {
        const unsigned int nth = ++counts[name];
        if (nth > most_of_a_name && nth != std::count(names.begin(), names.end(), name))
            continue;
        for (const int what : faults_that_fit(name, kills))
            if (what != ENOENT || nth == 1) { // later it means that there is nothing to move
                lines += run_one(row, {name, nth, what});
                runs += calls->came ? 1U : 0U;
            }
    }
    std::cout << runs << " runs\n";
    EXPECT_GE(runs, kills ? 150U : 300U);
    EXPECT_TRUE(kills || has(lines, row.line));
}

const bool registered = register_rows("Faults", scenarios, run_all<false>) &&
                        register_rows("Faults", walks, run_all<false>) &&
                        register_rows("Kills", scenarios, run_all<true>);

// What only a crash of the machine would show: both syncs, around the last rename.
TEST(Faults, MetadataIsSynced) {
    run_one(scenarios[1], {"", 0, 0});
    const std::vector<std::string> names(calls->names, calls->names + calls->count);
    const auto last = std::find(names.rbegin(), names.rend(), "renameat");
    ASSERT_NE(last, names.rend());
    EXPECT_TRUE(*(last - 1) == "fsync" && *(last + 1) == "fsync");
}

} // namespace
