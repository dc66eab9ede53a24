#include "tests/fault_layer.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <iterator>
#include <new>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

fault_log *calls;
std::string redirected_root;
unsigned int sleeps;

namespace {

uint64_t now;
bool is_on, kill_is_due;
fault_place fault;
int fault_is;
unsigned int seen;

// The errno value to fail with, or cut_short, or 0 to go on.
int begin_call(const char *name) {
    kill_is_due = false;
    if (!is_on)
        return 0;
    if (calls->count < std::size(calls->names))
        calls->names[calls->count++] = name;
    if (name != fault.name || ++seen != fault.nth || fault_is == no_fault)
        return 0;
    calls->came = true;
    kill_is_due = fault_is == kill_after;
    if (fault_is == kill_before)
        kill(getpid(), SIGKILL);
    return kill_is_due ? 0 : fault_is;
}

void end_call() {
    if (kill_is_due)
        kill(getpid(), SIGKILL);
}

const char *redirected(const char *path) {
    static char elsewhere[4096];
    if (strcmp(path, "/mnt/main") == 0)
        return redirected_root.c_str();
    if (strcmp(path, "/proc/self/exe") != 0)
        return path;
    snprintf(elsewhere, sizeof(elsewhere), "%s/program", redirected_root.c_str());
    return elsewhere;
}

} // namespace

fault_log *new_fault_log() {
    return static_cast<fault_log *>(mmap(nullptr, sizeof(fault_log), PROT_READ | PROT_WRITE,
                                         MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

void begin_faults(fault_place place, int what) {
    calls->count = seen = 0;
    calls->came = false;
    fault = place;
    fault_is = what;
    is_on = true;
}

void end_faults() {
    is_on = false;
}

#define WRAP(type, name, failure, parameters, arguments)                                           \
    extern "C" type __real_##name parameters;                                                      \
    extern "C" type __wrap_##name parameters {                                                     \
        const int error = begin_call(#name);                                                       \
        if (error > 0) {                                                                           \
            errno = error;                                                                         \
            return failure;                                                                        \
        }                                                                                          \
        type result = __real_##name arguments;                                                     \
        end_call();                                                                                \
        return result;                                                                             \
    }

// A close that fails has closed all the same.
#define WRAP_CLOSE(name, type)                                                                     \
    extern "C" int __real_##name(type);                                                            \
    extern "C" int __wrap_##name(type closed) {                                                    \
        const int error = begin_call(#name);                                                       \
        const int result = __real_##name(closed);                                                  \
        end_call();                                                                                \
        errno = error > 0 ? error : errno;                                                         \
        return error > 0 ? -1 : result;                                                            \
    }

WRAP_CLOSE(close, int)
WRAP_CLOSE(closedir, DIR *)
WRAP_CLOSE(fclose, FILE *)
WRAP(int, open, -1, (const char *path, int flags, mode_t mode), (redirected(path), flags, mode))
WRAP(int, openat, -1, (int at, const char *path, int flags, mode_t mode), (at, path, flags, mode))
WRAP(DIR *, opendir, nullptr, (const char *path), (path))
WRAP(dirent *, readdir, nullptr, (DIR * stream), (stream))
WRAP(FILE *, fopen, nullptr, (const char *path, const char *mode), (path, mode))
WRAP(char *, realpath, nullptr, (const char *path, char *out), (redirected(path), out))
WRAP(int, stat, -1, (const char *path, struct stat *out), (path, out))
WRAP(int, lstat, -1, (const char *path, struct stat *out), (path, out))
WRAP(int, fstat, -1, (int fd, struct stat *out), (fd, out))
WRAP(int, fstatat, -1, (int at, const char *path, struct stat *out, int flags),
     (at, path, out, flags))
WRAP(int, statx, -1, (int at, const char *path, int flags, unsigned int mask, struct statx *out),
     (at, path, flags, mask, out))
WRAP(int, fstatfs, -1, (int fd, struct statfs *out), (fd, out))
WRAP(int, mkdirat, -1, (int at, const char *path, mode_t mode), (at, path, mode))
WRAP(int, renameat, -1, (int from, const char *old, int to, const char *name),
     (from, old, to, name))
WRAP(int, unlinkat, -1, (int at, const char *path, int flags), (at, path, flags))
WRAP(int, unlink, -1, (const char *path), (path))
WRAP(ssize_t, readlink, -1, (const char *path, char *out, size_t size), (path, out, size))
WRAP(ssize_t, readlinkat, -1, (int at, const char *path, char *out, size_t size),
     (at, path, out, size))
WRAP(ssize_t, read, -1, (int fd, void *out, size_t size), (fd, out, error < 0 ? 1 : size))
WRAP(ssize_t, write, -1, (int fd, const void *text, size_t size), (fd, text, error < 0 ? 1 : size))
WRAP(ssize_t, getdents64, -1, (int fd, void *out, size_t size), (fd, out, size))
WRAP(int, fsync, -1, (int fd), (fd))
WRAP(int, fchown, -1, (int fd, uid_t uid, gid_t gid), (fd, uid, gid))
WRAP(int, fchmod, -1, (int fd, mode_t mode), (fd, mode))
WRAP(int, flock, -1, (int fd, int how), (fd, how))
WRAP(int, fcntl, -1, (int fd, int command, long argument), (fd, command, argument))
WRAP(int, socket, -1, (int domain, int type, int protocol), (domain, type, protocol))
WRAP(ssize_t, send, -1, (int fd, const void *text, size_t size, int flags), (fd, text, size, flags))
WRAP(ssize_t, recv, -1, (int fd, void *out, size_t size, int flags), (fd, out, size, flags))
WRAP(void *, calloc, nullptr, (size_t count, size_t size), (count, size))
WRAP(char *, strdup, nullptr, (const char *text), (text))
WRAP(char *, strndup, nullptr, (const char *text, size_t size), (text, size))

extern "C" unsigned int __wrap_sleep(unsigned int /*seconds*/) {
    now += 301000000;
    raise(sleeps++ == 0 ? SIGHUP : SIGTERM);
    return 0;
}

extern "C" uint64_t __wrap_monotonic_clock_us() {
    return now += 1000000;
}

void *operator new(size_t size) {
    if (begin_call("operator new") > 0)
        throw std::bad_alloc();
    if (void *memory = malloc(size))
        return memory;
    throw std::bad_alloc();
}

void *operator new(size_t size, const std::nothrow_t & /*tag*/) noexcept {
    return begin_call("operator new") > 0 ? nullptr : malloc(size);
}

void operator delete(void *memory) noexcept {
    free(memory);
}

void operator delete(void *memory, size_t /*size*/) noexcept {
    free(memory);
}
