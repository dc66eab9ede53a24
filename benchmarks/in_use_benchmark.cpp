// Is a file in use? The service's answer, the walk alone, what the kernel needs at least, and
// fuser. A held file is measured by a clock that goes on while the service sleeps: it must not.
#include "base/handles.h"
#include "benchmarks/measure.h"
#include "platform/include/procfs.h"
#include "platform/processes/process_walk.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>

namespace {

struct OneFile : WorkFolder {
    OneFile() { write_text(path, "x"); }
    std::string path = root / "file";
};

// Counts a number of answers as one iteration; the clock would show in a single short one.
constexpr int answers = 100;

void ask(benchmark::State &state, clockid_t clock, const std::string &path, int expected) {
    procfs_path_in_use_info info{};
    int wrong = 0;
    measure(
        state, clock, [] {},
        [&] {
            for (int i = 0; i < answers; ++i)
                wrong += procfs_path_in_use(path.c_str(), &info, 1, 0) == expected ? 0 : 1;
        });
    if (wrong > 0)
        state.SkipWithError("wrong answer");
}

void in_use_free(benchmark::State &state) {
    const OneFile file;
    ask(state, cpu_time, file.path, 0);
}

void in_use_free_wall(benchmark::State &state) {
    const OneFile file;
    ask(state, wall_time, file.path, 0);
}

void in_use_held_wall(benchmark::State &state) {
    const OneFile file;
    const Holder holder({file.path});
    ask(state, wall_time, file.path, 1);
}

void in_use_floor(benchmark::State &state) {
    const OneFile file;
    measure(
        state, cpu_time, [] {},
        [&] {
            for (int i = 0; i < answers; ++i) {
                const UniqueFd fd(open(file.path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
                fcntl(fd.get(), F_SETSIG, SIGURG);
                fcntl(fd.get(), F_SETLEASE, F_WRLCK);
                fcntl(fd.get(), F_SETLEASE, F_UNLCK);
            }
        });
}

void in_use_walk(benchmark::State &state) {
    const OneFile file;
    const UniqueFd fd(open(file.path.c_str(), O_PATH | O_CLOEXEC));
    pid_t found = 0;
    measure(
        state, cpu_time, [] {}, [&] { found = find_process_using_file(fd.get()); });
    if (found != 0)
        state.SkipWithError("wrong answer");
}

double cpu_seconds_of_children() {
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void in_use_fuser(benchmark::State &state) {
    const OneFile file;
    while (state.KeepRunning()) {
        const double start = cpu_seconds_of_children();
        const char *const arguments[] = {"fuser", "-s", file.path.c_str(), nullptr};
        pid_t process = 0;
        int status = 0;
        if (posix_spawnp(&process, "fuser", nullptr, nullptr, const_cast<char **>(arguments),
                         environ) != 0 ||
            waitpid(process, &status, 0) != process || !WIFEXITED(status) ||
            WEXITSTATUS(status) != 1)
            state.SkipWithError("fuser, of the package psmisc, did not answer");
        state.SetIterationTime(cpu_seconds_of_children() - start);
    }
}

BENCHMARK(in_use_free)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(in_use_free_wall)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(in_use_held_wall)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(in_use_floor)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(in_use_walk)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(in_use_fuser)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
