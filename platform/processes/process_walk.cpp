#include "platform/processes/process_walk.h"

#include "base/diagnostics.h"
#include "base/handles.h"
#include "platform/processes/mapping_query.h"
#include "platform/processes/proc_tables.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kcmp.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>

namespace {

constexpr size_t buffer_size = size_t{32} << 10;

// What is looked for, and where.
struct walk {
    int proc;              // the opened process file system
    bool numbers_are_pids; // it may show the process ids of another namespace
    file_identity file;
    file_identity mapped; // how a table of mappings names it
    bool looks_at_memory;
};

bool is_number(const char *name) {
    return *name >= '0' && *name <= '9';
}

pid_t to_pid(const char *number) {
    return static_cast<pid_t>(strtol(number, nullptr, 10));
}

bool is_refusal(int error) {
    return error == EACCES || error == EPERM;
}

bool has_ended(int error) {
    return error == ENOENT || error == ESRCH;
}

// The process neither ended nor refused: the service or the machine is short of something. What
// could not be looked at counts as held, since a file that waits is better than one cut short.
bool is_unknown(int error) {
    return !has_ended(error) && !is_refusal(error);
}

// Calls visit(name) for each entry whose name is a number until it returns true, and returns
// whether one did, or may have.
template<typename Visit> bool any_number(int directory, Visit visit) {
    alignas(dirent64) char buffer[buffer_size];
    ssize_t size = 0;
    while ((size = getdents64(directory, buffer, sizeof(buffer))) > 0) {
        for (ssize_t at = 0; at < size;) {
            const auto *item = reinterpret_cast<const dirent64 *>(buffer + at);
            if (is_number(item->d_name) && visit(item->d_name))
                return true;
            at += item->d_reclen;
        }
    }
    return size < 0 && !has_ended(errno);
}

unique_fd open_directory(int at, const std::string &name) {
    return unique_fd(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// Calls visit(lines) with one piece of a table after another until it returns true, and returns
// whether one did, or may have. A piece holds whole lines.
template<typename Visit> bool any_lines(int table, Visit visit) {
    char buffer[buffer_size]; // longer than the longest line, that of a path full of escapes
    size_t kept = 0;
    ssize_t size = 0;
    while ((size = TEMP_FAILURE_RETRY(read(table, buffer + kept, sizeof(buffer) - kept))) > 0) {
        const std::string_view text(buffer, kept + static_cast<size_t>(size));
        const size_t whole = text.rfind('\n') + 1; // 0 without one
        if (visit(text.substr(0, whole)))
            return true;
        kept = whole == 0 && text.size() == sizeof(buffer) ? 0 : text.size() - whole;
        memmove(buffer, buffer + whole, kept);
    }
    return size < 0 && !has_ended(errno);
}

template<typename Visit> bool any_lines(int at, const std::string &name, Visit visit) {
    const unique_fd table(openat(at, name.c_str(), O_RDONLY | O_CLOEXEC));
    return table && any_lines(table.get(), visit);
}

descriptor_info describe(int at, const std::string &name) {
    descriptor_info info;
    any_lines(at, name, [&info](std::string_view lines) {
        info = parse_descriptor_info(lines);
        return true;
    });
    return info;
}

// What the kernel itself says of a descriptor, without asking the file system: the device of the
// mount and its own inode number. What it does not tell is taken from the identity given.
file_identity kernel_identity(int at, const std::string &fdinfo, const file_identity &otherwise) {
    const descriptor_info info = describe(at, fdinfo);
    file_identity known{otherwise.device, info.inode.value_or(otherwise.inode)};
    if (info.mount_id)
        any_lines(AT_FDCWD, "/proc/self/mountinfo", [&](std::string_view lines) {
            const auto device = device_of_mount(lines, *info.mount_id);
            known.device = device.value_or(known.device);
            return device.has_value();
        });
    return known;
}

// Where a file system gives its files device numbers of other kinds, subvolumes and overlays, the
// tables of mappings have that of the mounted file system and the kernel's own inode number.
file_identity identity_when_mapped(int path_fd, const file_identity &file) {
    return kernel_identity(AT_FDCWD, "/proc/self/fdinfo/" + std::to_string(path_fd), file);
}

// An operator has to know that the answers may be wrong; once is enough.
void report_blindness(const char *process, int error) {
    static bool reported = false;
    if (!reported)
        diag("Warning: a file in use may not be noticed, cannot look into process %s, %s\n",
             process, strerror(error));
    reported = true;
}

bool is_path_descriptor(const walk &walk, const std::string &task, const char *descriptor) {
    const auto flags = describe(walk.proc, task + "/fdinfo/" + descriptor).flags;
    return flags && (*flags & O_PATH) != 0;
}

// The number of descriptors in an opened /proc/PID/fd; 0 where the kernel, one before 6.2, does not
// tell.
uint64_t descriptor_count(int directory) {
    struct statx status {};
    return statx(directory, "", AT_EMPTY_PATH, STATX_SIZE, &status) == 0 ? status.stx_size : 0;
}

// Most processes have the lowest numbers in use, without a gap. As long as that goes, the names
// need not be listed, which saves a third of the time.
bool has_open(const walk &walk, const std::string &task) {
    const unique_fd descriptors = open_directory(walk.proc, task + "/fd");
    if (!descriptors) {
        if (walk.looks_at_memory && is_refusal(errno))
            report_blindness(task.c_str(), errno);
        return is_unknown(errno);
    }
    bool is_open = true;
    const auto holds = [&](const char *descriptor) {
        file_identity open_file{};
        is_open = identify(descriptors.get(), descriptor, open_file);
        if (is_open)
            return open_file == walk.file && !is_path_descriptor(walk, task, descriptor);
        // The disk of another file may have died, with processes that still have that open.
        return is_unknown(errno) && kernel_identity(walk.proc, task + "/fdinfo/" + descriptor,
                                                    walk.mapped) == walk.mapped;
    };
    const uint64_t count = descriptor_count(descriptors.get());
    uint64_t seen = 0;
    for (; seen < count; ++seen) {
        if (holds(std::to_string(seen).c_str()))
            return true;
        if (!is_open)
            break;
    }
    if (count > 0 && seen == count)
        return false;
    if (seen > 0) // the position in this directory is the number of a descriptor, plus 2
        lseek(descriptors.get(), static_cast<off_t>(seen) + 2, SEEK_SET);
    return any_number(descriptors.get(), holds);
}

enum class memory {
    none, // a kernel thread, or it has ended
    without_file,
    with_file,
    refused
};

// errno with `refused`.
memory look_at_memory(const walk &walk, const std::string &task) {
    file_identity program{};
    if (identify(walk.proc, (task + "/exe").c_str(), program)) {
        if (program == walk.file)
            return memory::with_file;
    } else if (has_ended(errno)) {
        return memory::none;
    }
    // Of the two only this is refused for the sake of the memory alone: a kernel thread and a
    // process that has ended may be asked by anybody.
    const unique_fd mappings(openat(walk.proc, (task + "/maps").c_str(), O_RDONLY | O_CLOEXEC));
    if (!mappings)
        return is_unknown(errno)   ? memory::with_file
               : is_refusal(errno) ? memory::refused
                                   : memory::none;
    std::optional<bool> found = query_mappings(mappings.get(), walk.mapped, walk.file);
    if (!found)
        found = any_lines(mappings.get(), [&walk](std::string_view lines) {
            return maps_file(lines, walk.mapped) || maps_file(lines, walk.file);
        });
    return *found ? memory::with_file : memory::without_file;
}

bool shares_descriptors(const walk &walk, const char *process, const char *thread) {
    return walk.numbers_are_pids &&
           syscall(SYS_kcmp, to_pid(process), to_pid(thread), KCMP_FILES, 0, 0) == 0;
}

bool has_threads(const walk &walk, const std::string &tasks) {
    struct statx status {};
    constexpr unsigned int links_of_empty_directory = 2;
    return statx(walk.proc, tasks.c_str(), AT_STATX_DONT_SYNC, STATX_NLINK, &status) == 0
               ? status.stx_nlink > links_of_empty_directory + 1
               : is_unknown(errno);
}

// All threads of a process share its memory, but the first one may have ended and left it.
bool another_thread_holds(const walk &walk, const char *process, bool memory_is_known) {
    const std::string tasks = std::string(process) + "/task";
    if (!has_threads(walk, tasks))
        return false;
    const unique_fd threads = open_directory(walk.proc, tasks);
    if (!threads)
        return is_unknown(errno);
    return any_number(threads.get(), [&](const char *thread) {
        if (strcmp(thread, process) == 0)
            return false;
        const std::string task = tasks + "/" + thread;
        return (!shares_descriptors(walk, process, thread) && has_open(walk, task)) ||
               (!memory_is_known && look_at_memory(walk, task) == memory::with_file);
    });
}

bool holds(const walk &walk, const char *process) {
    if (!walk.looks_at_memory)
        return has_open(walk, process) || another_thread_holds(walk, process, true);
    const memory state = look_at_memory(walk, process);
    if (state == memory::refused) {
        report_blindness(process, errno);
        return false; // its descriptors are refused as well
    }
    // Who has no memory has no descriptors either.
    return state == memory::with_file || (state != memory::none && has_open(walk, process)) ||
           another_thread_holds(walk, process, state != memory::none);
}

// The service's number in this process file system; empty when it is not in there.
std::string own_number(int proc) {
    char number[16];
    const ssize_t length = readlinkat(proc, "self", number, sizeof(number));
    return std::string(number, length > 0 ? static_cast<size_t>(length) : 0);
}

// A process file system can be mounted so that it does not even list what may not be looked into.
// Process 1 is always there.
void check_listing(int proc) {
    file_identity first{};
    if (!identify(proc, "1", first))
        report_blindness("1", errno);
}

pid_t find_process(walk walk) {
    const unique_fd proc = open_directory(AT_FDCWD, "/proc");
    if (!proc)
        return -1;
    const std::string self = own_number(proc.get());
    walk.proc = proc.get();
    walk.numbers_are_pids = self == std::to_string(getpid());
    if (walk.looks_at_memory)
        check_listing(proc.get());
    pid_t found = -1; // stays where the listing broke off
    const bool may_be_held = any_number(proc.get(), [&](const char *process) {
        if (process != self && holds(walk, process))
            found = to_pid(process);
        return found > 0;
    });
    return may_be_held ? found : 0;
}

} // namespace

pid_t find_process_using_file(int path_fd) {
    file_identity file{};
    if (!identify(path_fd, "", file))
        return -1;
    return find_process({-1, false, file, identity_when_mapped(path_fd, file), true});
}

pid_t find_process_with_open_file(const file_identity &file) {
    return find_process({-1, false, file, file, false});
}
