// A load of sleeping processes: sleepers PROCESSES DESCRIPTORS. Prints "ready" when they are there
// and ends with them when its standard input ends. Should it be killed, the kernel ends them.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

[[noreturn]] void sleep_with(long descriptors, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (long i = 3; i < descriptors; ++i)
        if (dup(STDERR_FILENO) < 0)
            _exit(1);
    while (getppid() == parent)
        pause();
    _exit(0);
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 3) {
        fprintf(stderr, "Usage: %s PROCESSES DESCRIPTORS\n", argv[0]);
        return 1;
    }
    const long processes = strtol(argv[1], nullptr, 10);
    const long descriptors = strtol(argv[2], nullptr, 10);
    const pid_t parent = getpid();
    std::vector<pid_t> children;
    for (long i = 0; i < processes; ++i) {
        const pid_t child = fork();
        if (child == 0)
            sleep_with(descriptors, parent);
        if (child > 0)
            children.push_back(child);
    }
    sleep(1); // until they have their descriptors
    puts("ready");
    fflush(stdout);
    while (getchar() != EOF) {
    }
    for (const pid_t child : children)
        kill(child, SIGKILL);
    while (wait(nullptr) > 0) {
    }
    return children.size() == static_cast<size_t>(processes) ? 0 : 1;
}
