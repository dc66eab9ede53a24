// What the benchmarks share: a folder to work in, and CPU time around a part of an iteration.
#ifndef BENCHMARKS_MEASURE_H
#define BENCHMARKS_MEASURE_H

#include <benchmark/benchmark.h>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdlib.h>
#include <string>

namespace fs = std::filesystem;

// Seconds of CPU time, user and system, of the process.
inline double cpu_seconds() {
    timespec now{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Runs prepare, which is not counted, and run, of which the CPU time is, once an iteration.
template<typename Prepare, typename Run>
void measure_cpu(benchmark::State &state, Prepare prepare, Run run) {
    while (state.KeepRunning()) {
        prepare();
        const double start = cpu_seconds();
        run();
        state.SetIterationTime(cpu_seconds() - start);
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

#endif
