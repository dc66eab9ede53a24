#include "config/toml_guard.h"

#include "compat/handles.h"

#include <algorithm>
#include <cpptoml.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace {

constexpr rlim_t trial_stack_limit = rlim_t{4} << 20; // bytes, half of what is usual
constexpr unsigned int trial_limit_s = 60;

[[noreturn]] void refuse(const char *reason) {
    throw cpptoml::parse_exception{reason};
}

// The parser calls itself for each bracket and each dot within another, and so does the release of
// what it made: a file can use up the stack, at a depth that only the parser could tell. With half
// the stack of the service, who survives here survives there.
void try_parser(const std::string &path) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    prctl(PR_SET_DUMPABLE, 0); // a crash here is an answer, and nothing for a core file
    signal(SIGSEGV, SIG_DFL);
    alarm(trial_limit_s);
    rlimit stack{};
    getrlimit(RLIMIT_STACK, &stack);
    stack.rlim_cur = std::min(stack.rlim_cur / 2, trial_stack_limit);
    setrlimit(RLIMIT_STACK, &stack);
    try {
        cpptoml::parse_file(path);
    } catch (const std::exception &) { // which the service survives as well
    }
}

// A byte from the child says that it came through; its exit status is lost where the service was
// started with SIGCHLD ignored.
bool survives_parser(const std::string &path) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        refuse(strerror(errno));
    const unique_fd reader(ends[0]);
    unique_fd writer(ends[1]);
    const pid_t child = fork();
    if (child < 0)
        refuse(strerror(errno));
    char byte = 0;
    if (child == 0) {
        try_parser(path);
        _exit(write(writer.get(), &byte, 1) == 1 ? 0 : 1);
    }
    writer.reset();
    const ssize_t size = TEMP_FAILURE_RETRY(read(reader.get(), &byte, 1));
    const int error = errno;
    TEMP_FAILURE_RETRY(waitpid(child, nullptr, 0));
    if (size < 0)
        refuse(strerror(error));
    return size == 1;
}

} // namespace

void refuse_unfit_toml(const std::string &path) {
    struct stat status {};
    if (stat(path.c_str(), &status) != 0)
        return;
    if (!S_ISREG(status.st_mode))
        refuse("not a regular file");
    if (status.st_size > toml_size_limit)
        refuse("too large");
    if (!survives_parser(path))
        refuse("too much for the parser");
}
