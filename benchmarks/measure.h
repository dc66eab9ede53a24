// What the benchmarks share: a folder to work in, and a clock around a part of an iteration.
#ifndef BENCHMARKS_MEASURE_H
#define BENCHMARKS_MEASURE_H

#include "base/handles.h"

#include <benchmark/benchmark.h>
#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <stdlib.h>
#include <string>
#include <sys/wait.h>
#include <vector>

namespace fs = std::filesystem;

constexpr clockid_t cpu_time = CLOCK_PROCESS_CPUTIME_ID; // user and system, of the process
constexpr clockid_t wall_time = CLOCK_MONOTONIC;         // goes on while the process sleeps

inline double seconds_of(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Once an iteration, runs prepare, which is not counted, and run, which is counted by the clock.
template<typename Prepare, typename Run>
void measure(benchmark::State &state, clockid_t clock, Prepare prepare, Run run) {
    while (state.KeepRunning()) {
        prepare();
        const double start = seconds_of(clock);
        run();
        state.SetIterationTime(seconds_of(clock) - start);
    }
}

inline void write_text(const fs::path &path, const std::string &text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// A new folder under TMPDIR, removed with all that is in it.
struct WorkFolder {
    WorkFolder() {
        std::string name = (fs::temp_directory_path() / "watch-folder-benchmark-XXXXXX").string();
        root = fs::canonical(mkdtemp(name.data()));
    }
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;
    ~WorkFolder() { fs::remove_all(root); }
    fs::path root;
};

// A process that holds files open. This one has none of them.
struct Holder {
    explicit Holder(const std::vector<std::string> &paths) {
        close_range(3, ~0U, 0); // what a service manager starts has no others
        std::vector<UniqueFd> files;
        for (const std::string &path : paths)
            files.emplace_back(open(path.c_str(), O_RDONLY | O_CLOEXEC));
        pid = fork();
        if (pid == 0)
            for (;;)
                pause();
    }
    Holder(const Holder &) = delete;
    Holder &operator=(const Holder &) = delete;
    ~Holder() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    pid_t pid;
};

#endif
