// The calls of the C library that our objects make: the linker leads them here (--wrap), where they
// are counted, and one of them may fail.
#ifndef TESTS_FAULT_LAYER_H
#define TESTS_FAULT_LAYER_H

#include "tests/support.h"

#include <boost/preprocessor/seq/for_each.hpp>

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
unsigned int seen;

// A positive errno value: fail so. Else make the call, with cut_short for one byte only.
int begin_call(const char *name) {
    if (!is_on)
        return 0;
    if (calls->count < std::size(calls->names))
        calls->names[calls->count++] = name;
    if (strcmp(name, wanted->call) != 0 || ++seen != wanted->nth)
        return 0;
    calls->came = true;
    if (wanted->what == killed)
        kill(getpid(), SIGKILL);
    return wanted->what;
}

// The program whose lock is taken is a file of the test. Calls are counted from then on.
long redirected(long path) {
    if (strcmp(reinterpret_cast<const char *>(path), "/proc/self/exe") != 0)
        return path;
    is_on = wanted != nullptr;
    return reinterpret_cast<long>("program");
}

// Integers and pointers are passed alike, so one definition fits all calls: more arguments than a
// call has do no harm. A close that fails has closed all the same.
#define WRAP_WITH(name, failure, first, third)                                                     \
    extern "C" long __real_##name(...);                                                            \
    extern "C" long __wrap_##name([[maybe_unused]] long a, long b, long c, long d, long e) {       \
        const int error = begin_call(#name);                                                       \
        const bool is_called = error <= 0 || strstr(#name, "close") != nullptr;                    \
        const long result = is_called ? __real_##name(first, b, third, d, e) : 0;                  \
        errno = error > 0 ? error : errno;                                                         \
        return error > 0 ? failure : result;                                                       \
    }
#define WRAP(unused, failure, name) WRAP_WITH(name, failure, a, c)

WRAP_WITH(open, -1, redirected(a), c)
WRAP_WITH(realpath, 0, reinterpret_cast<long>("."), c) // the main storage
WRAP_WITH(read, -1, a, error == cut_short ? 1 : c)
WRAP_WITH(write, -1, a, error == cut_short ? 1 : c)
BOOST_PP_SEQ_FOR_EACH(WRAP, 0, (opendir)(readdir)(fopen))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (close)(fclose)(openat)(stat)(lstat)(fstat)(fstatat)(statx))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (fstatfs)(mkdirat)(renameat)(unlinkat)(unlink)(readlink))
BOOST_PP_SEQ_FOR_EACH(WRAP, -1, (readlinkat)(getdents64)(fsync)(fchown)(fchmod)(flock)(fcntl))

#endif
