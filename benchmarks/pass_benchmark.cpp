// A pass over watch folders in which nothing matches, against a bare loop of the same system calls,
// and one over folders in each of which a file waits.
#include "base/handles.h"
#include "benchmarks/measure.h"
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "watch/watch_pass.h"

#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sys/stat.h>
#include <utility>
#include <vector>

namespace {

// Fills the registry with entries that match *.mxf, whose folders hold empty files.
struct Folders : WorkFolder {
    Folders(int64_t entries, int64_t files, const std::string &extension) {
        main_path = root;
        configuration.clear();
        fs::create_directories(root / "target");
        for (int64_t i = 0; i < entries; ++i) {
            WatchEntry entry;
            entry.name = "event" + std::to_string(i);
            entry.watch_path = root / "watch" / std::to_string(i);
            entry.target_file = root / "target" / (std::to_string(i) + ".mxf");
            entry.patterns.emplace_back("\\.mxf$");
            fs::create_directories(entry.watch_path);
            for (int64_t k = 0; k < files; ++k)
                write_text(fs::path(entry.watch_path) / (std::to_string(k) + extension), "");
            configuration.emplace(entry.name, std::move(entry));
        }
    }
};

// One write a line, as the service does it, of a text put together without a format.
void write_line(std::initializer_list<const char *> parts) {
    char line[3 * 4096];
    char *end = line;
    for (const char *part : parts)
        end = stpcpy(end, part);
    (void)!write(STDERR_FILENO, line, static_cast<size_t>(end - line));
}

void write_real_path(const char *start, int fd) {
    char link[64];
    char path[4096];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    const ssize_t size = readlink(link, path, sizeof(path) - 1);
    path[size > 0 ? size : 0] = '\0';
    write_line({start, path, "\n"});
}

void bare_scan(const WatchEntry &entry, const char *target_directory) {
    write_line({"Checking '", entry.name.c_str(), "' in '", entry.watch_path.c_str(), "'\n"});
    write_line({"  if new entries replace '", entry.target_file.c_str(), "'\n"});
    DIR *folder = opendir(entry.watch_path.c_str());
    const int target = open(target_directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    write_real_path("watch realpath: ", dirfd(folder));
    write_real_path("target realpath: ", target);
    struct stat status {};
    while (const dirent *item = readdir(folder))
        if (item->d_name[0] != '.')
            fstatat(dirfd(folder), item->d_name, &status, AT_SYMLINK_NOFOLLOW);
    close(target);
    closedir(folder);
}

void pass_service(benchmark::State &state) {
    const Folders folders(state.range(0), state.range(1), ".txt");
    measure(
        state, cpu_time, [] {}, check_watch_entries);
}

void pass_floor(benchmark::State &state) {
    const Folders folders(state.range(0), state.range(1), ".txt");
    const std::string target = folders.root / "target";
    measure(
        state, cpu_time, [] {},
        [&target] {
            for (const auto &item : configuration)
                bare_scan(item.second, target.c_str());
        });
}

// One file in each folder. Each waits, since another process holds it.
void pass_waiting_wall(benchmark::State &state) {
    const Folders folders(state.range(0), 1, ".mxf");
    std::vector<std::string> files;
    for (const auto &[name, entry] : configuration)
        files.push_back(entry.watch_path + "/0.mxf");
    const Holder holder(files);
    measure(
        state, wall_time, [] {}, check_watch_entries);
    for (const std::string &file : files)
        if (!fs::exists(file))
            state.SkipWithError("a held file was delivered");
}

// The same without a match.
void pass_idle_wall(benchmark::State &state) {
    const Folders folders(state.range(0), 1, ".txt");
    measure(
        state, wall_time, [] {}, check_watch_entries);
}

// Entries, files in each of their folders.
void sizes(benchmark::internal::Benchmark *benchmark) {
    for (const int entries : {10, 100, 1000, 10000})
        benchmark->Args({entries, 3});
    for (const int files : {10, 100, 1000, 10000, 100000})
        benchmark->Args({1, files});
    benchmark->UseManualTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(pass_service)->Apply(sizes);
BENCHMARK(pass_floor)->Apply(sizes);
BENCHMARK(pass_waiting_wall)->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(pass_idle_wall)->Arg(1000)->UseManualTime()->Unit(benchmark::kMicrosecond);

} // namespace
