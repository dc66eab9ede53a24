// The delivery of one file that replaces another, metadata on both, against the bare renames, opens
// and metadata file calls that it takes.
#include "base/handles.h"
#include "benchmarks/measure.h"
#include "delivery/deliver_file.h"
#include "service/main_storage.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace {

constexpr char new_name[] = "clip.mxf";

// A target in place and a new file, both with a number of metadata entries.
struct Replacement : WorkFolder {
    explicit Replacement(int64_t entries) {
        for (int64_t i = 1; i < entries; ++i)
            metadata += "key " + std::to_string(i) + "=some value\n";
        metadata += "original filename=morning.mxf\n";
        main_path = root; // ARCHIVE has to lie below it
        entry.name = "event";
        entry.watch_path = root / "watch";
        entry.target_file = root / "target" / "news.mxf";
    }
    void prepare() const {
        fs::remove_all(root / "watch");
        fs::remove_all(root / "target");
        write_text(root / "watch" / new_name, "new");
        write_text(root / "watch" / ".clip.mxf.metadir" / "metadata", metadata);
        write_text(root / "target" / "news.mxf", "old");
        write_text(root / "target" / ".news.mxf.metadir" / "metadata", metadata);
    }
    std::string metadata;
    WatchEntry entry;
};

// Leaves the file open.
std::string read_metadata(int metadir, UniqueFd &file) {
    file.reset(openat(metadir, "metadata", O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status {};
    fstat(file.get(), &status);
    std::string text(static_cast<size_t>(status.st_size) + 1, '\0');
    text.resize(static_cast<size_t>(read(file.get(), text.data(), text.size())));
    char end = 0;
    (void)!read(file.get(), &end, 1);
    return text;
}

void write_metadata(int metadir, const UniqueFd &old_file, const std::string &text) {
    unlinkat(metadir, ".new", 0);
    const UniqueFd fd(
        openat(metadir, ".new", O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    struct stat status {};
    fstat(old_file.get(), &status);
    fstat(fd.get(), &status);
    flistxattr(old_file.get(), nullptr, 0);
    fremovexattr(fd.get(), "system.posix_acl_access");
    fchmod(fd.get(), 0644);
    (void)!write(fd.get(), text.data(), text.size());
    fsync(fd.get());
    renameat(metadir, ".new", metadir, "metadata");
    fsync(metadir);
}

int open_directory(int at, const char *name) {
    return openat(at, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
}

void bare_delivery(int watch, int target, const char *target_path) {
    const UniqueFd file(openat(target, "news.mxf", O_PATH | O_NOFOLLOW | O_CLOEXEC));
    UniqueFd metadir(open_directory(target, ".news.mxf.metadir"));
    struct stat status {};
    fstatat(metadir.get(), ".media.item.active.socket", &status, AT_SYMLINK_NOFOLLOW);
    mkdirat(target, "ARCHIVE", 0755);
    UniqueFd archive(open_directory(target, "ARCHIVE"));
    UniqueFd old_file(-1);
    read_metadata(metadir.get(), old_file);
    fstatat(archive.get(), "morning.mxf", &status, AT_SYMLINK_NOFOLLOW);
    renameat(target, "news.mxf", archive.get(), "morning.mxf");
    renameat(target, ".news.mxf.metadir", archive.get(), ".morning.mxf.metadir");
    archive.reset();
    renameat2(watch, new_name, target, "news.mxf", RENAME_NOREPLACE);
    renameat(watch, ".clip.mxf.metadir", target, ".news.mxf.metadir");
    const UniqueFd reopened(open_directory(AT_FDCWD, target_path));
    const UniqueFd delivered(openat(target, "news.mxf", O_PATH | O_NOFOLLOW | O_CLOEXEC));
    metadir.reset(open_directory(reopened.get(), ".news.mxf.metadir"));
    const std::string text = read_metadata(metadir.get(), old_file);
    write_metadata(metadir.get(), old_file, text);
}

void delivery_service(benchmark::State &state) {
    const Replacement files(state.range(0));
    UniqueDir watch;
    std::unique_ptr<ItemContext> target;
    measure(
        state, cpu_time,
        [&] {
            files.prepare();
            watch.reset(opendir(files.entry.watch_path.c_str()));
            target = std::make_unique<ItemContext>();
            target->set_file_location(files.entry.target_file);
            target->open_directory();
        },
        [&] {
            deliver_file(watch.get(), new_name, *target, files.entry);
            target.reset();
        });
    if (!fs::exists(files.root / "target" / "ARCHIVE" / "morning.mxf"))
        state.SkipWithError("nothing was delivered");
}

// The lines that tell of each entry of the old and of the new item, one write a line.
void write_entry_lines(const std::string &metadata) {
    for (int item = 0; item < 2; ++item)
        for (size_t begin = 0; begin < metadata.size(); begin = metadata.find('\n', begin) + 1)
            (void)!write(STDERR_FILENO, metadata.data() + begin,
                         metadata.find('\n', begin) + 1 - begin);
}

void measure_bare_delivery(benchmark::State &state, bool writes_lines) {
    const Replacement files(state.range(0));
    const std::string target_path = files.root / "target";
    UniqueFd watch(-1), target(-1);
    measure(
        state, cpu_time,
        [&] {
            files.prepare();
            watch.reset(open_directory(AT_FDCWD, files.entry.watch_path.c_str()));
            target.reset(open_directory(AT_FDCWD, target_path.c_str()));
        },
        [&] {
            bare_delivery(watch.get(), target.get(), target_path.c_str());
            if (writes_lines)
                write_entry_lines(files.metadata);
            target.reset();
        });
}

void delivery_floor(benchmark::State &state) {
    measure_bare_delivery(state, false);
}

void delivery_floor_and_lines(benchmark::State &state) {
    measure_bare_delivery(state, true);
}

// Metadata entries.
void sizes(benchmark::internal::Benchmark *benchmark) {
    for (const int entries : {1, 10, 100, 1000})
        benchmark->Arg(entries);
    benchmark->UseManualTime()->Unit(benchmark::kMicrosecond);
}

BENCHMARK(delivery_service)->Apply(sizes);
BENCHMARK(delivery_floor)->Apply(sizes);
BENCHMARK(delivery_floor_and_lines)->Apply(sizes);

} // namespace
