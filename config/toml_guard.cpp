#include "config/toml_guard.h"

#include "base/handles.h"

#include <algorithm>
#include <cpptoml.h>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

int toml_trial_limit_ms = 60000;

namespace {

constexpr rlim_t trial_stack_limit = rlim_t{4} << 20; // bytes, half of what is usual
constexpr int answer_fd = STDERR_FILENO + 1;          // the child's end of the pipe

[[noreturn]] void refuse(const char *reason) {
    throw cpptoml::parse_exception{reason};
}

// The child ends with the service, and must not keep the service's lock until then: another start
// may follow at once, and the lock is on a descriptor that both have.
void leave_service(pid_t service, int writer) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != service || dup2(writer, answer_fd) < 0)
        _exit(1);
    close_range(answer_fd + 1, ~0U, 0);
}

// The parser calls itself for each bracket and each dot within another, and so does the release of
// what it made: a file can use up the stack, at a depth that only the parser could tell. With half
// the stack of the service, who survives here survives there.
void try_parser(const std::string &path) {
    prctl(PR_SET_DUMPABLE, 0); // a crash here is an answer, and nothing for a core file
    signal(SIGSEGV, SIG_DFL);
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
// started with SIGCHLD ignored. The time is kept on this side: the child may have been stopped, or
// have inherited that it ignores an alarm.
bool survives_parser(const std::string &path) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        refuse(strerror(errno));
    const unique_fd reader(ends[0]);
    unique_fd writer(ends[1]);
    const pid_t service = getpid();
    const pid_t child = fork();
    if (child < 0)
        refuse(strerror(errno));
    char byte = 0;
    if (child == 0) {
        leave_service(service, writer.get());
        try_parser(path);
        _exit(write(answer_fd, &byte, 1) == 1 ? 0 : 1);
    }
    writer.reset();
    pollfd answer{reader.get(), POLLIN, 0};
    ssize_t size = TEMP_FAILURE_RETRY(poll(&answer, 1, toml_trial_limit_ms));
    if (size == 1)
        size = TEMP_FAILURE_RETRY(read(reader.get(), &byte, 1));
    const int error = errno;
    if (answer.revents == 0 || size < 0)
        kill(child, SIGKILL);
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
