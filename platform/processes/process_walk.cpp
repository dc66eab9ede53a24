#include "platform/processes/process_walk.h"

#include "base/diagnostics.h"
#include "base/open.h"
#include "platform/processes/proc_tables.h"

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/kcmp.h>
#include <linux/magic.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>

namespace {

constexpr size_t buffer_size = size_t{32} << 10;

// What is looked for, and where.
struct Search {
    FileIdentity file;
    FileIdentity identity_in_maps;
    bool is_on_overlay = false;
    bool can_be_mapped = false; // a socket cannot: its search reads no mappings
    int proc = AT_FDCWD;        // the opened process file system
};

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
// could not be looked at counts as held.
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
            if (isdigit(item->d_name[0]) != 0 && visit(item->d_name))
                return true;
            at += item->d_reclen;
        }
    }
    return size < 0 && !has_ended(errno);
}

UniqueFd open_directory(int at, const std::string &name) {
    return UniqueFd(openat(at, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// An operator has to know that the answers may be wrong; once is enough.
void report_blindness(const char *process, int error) {
    static bool reported = false;
    if (!reported)
        diag("Warning: a file in use may not be noticed, cannot look into process %s, %s\n",
             process, strerror(error));
    reported = true;
}

// A descriptor opened with O_PATH is no use of the file. Its link has neither mode bit.
bool counts_as_open(int descriptors, const char *number) {
    struct stat link {};
    return fstatat(descriptors, number, &link, AT_SYMLINK_NOFOLLOW) != 0 ||
           (link.st_mode & (S_IRUSR | S_IWUSR)) != 0;
}

bool has_open(const Search &wanted, const std::string &task) {
    const UniqueFd descriptors = open_directory(wanted.proc, task + "/fd");
    if (!descriptors) {
        if (is_refusal(errno))
            report_blindness(task.c_str(), errno);
        return is_unknown(errno);
    }
    return any_number(descriptors.get(), [&](const char *number) {
        FileIdentity open_file{};
        // Any other error comes from another file, on a dead disk or server: ours has answered.
        if (!identify(descriptors.get(), number, open_file))
            return is_shortage(errno);
        return open_file == wanted.file && counts_as_open(descriptors.get(), number);
    });
}

enum class Memory {
    none, // a kernel thread, or it has ended
    refused,
    without_file,
    with_file
};

Memory look_at_memory(const Search &wanted, const std::string &task) {
    FileIdentity program{};
    if (identify(wanted.proc, (task + "/exe").c_str(), program)) {
        if (program == wanted.file)
            return Memory::with_file;
    } else if (has_ended(errno)) {
        return Memory::none;
    }
    if (!wanted.can_be_mapped)
        return Memory::without_file;
    const UniqueFile mappings(fopen(("/proc/" + task + "/maps").c_str(), "re"));
    // The kernel lets anybody open maps of a task without memory. A refusal therefore means memory
    // that we may not see. A refusal of exe can have other causes.
    if (mappings == nullptr && is_refusal(errno)) {
        report_blindness(task.c_str(), errno);
        return Memory::refused;
    }
    if (mappings == nullptr)
        return has_ended(errno) ? Memory::none : Memory::with_file;
    return maps_file(mappings.get(), wanted.identity_in_maps, wanted.is_on_overlay)
               ? Memory::with_file
               : Memory::without_file;
}

bool shares_descriptors(const char *process, const char *thread) {
    return syscall(SYS_kcmp, to_pid(process), to_pid(thread), KCMP_FILES, 0, 0) == 0;
}

// All threads of a process share its memory, but the first one may have ended and left it.
bool another_thread_uses(const Search &wanted, const char *process, bool memory_is_known) {
    const std::string tasks = std::string(process) + "/task";
    const UniqueFd threads = open_directory(wanted.proc, tasks);
    if (!threads)
        return is_unknown(errno);
    return any_number(threads.get(), [&](const char *thread) {
        if (strcmp(thread, process) == 0)
            return false;
        const std::string task = tasks + "/" + thread;
        return (!shares_descriptors(process, thread) && has_open(wanted, task)) ||
               (!memory_is_known && look_at_memory(wanted, task) == Memory::with_file);
    });
}

bool uses_file(const Search &wanted, const char *process) {
    const Memory state = look_at_memory(wanted, process);
    if (state == Memory::refused)
        return false; // its descriptors are refused as well
    // A task without an address space has no open files.
    return state == Memory::with_file || (state != Memory::none && has_open(wanted, process)) ||
           another_thread_uses(wanted, process, state != Memory::none);
}

// The service's number in this process file system; empty when it is not in there.
std::string own_number(int proc) {
    char number[16];
    const ssize_t length = readlinkat(proc, "self", number, sizeof(number));
    return std::string(number, length > 0 ? static_cast<size_t>(length) : 0);
}

pid_t find_process(Search wanted) {
    const UniqueFd proc = open_directory(AT_FDCWD, "/proc");
    if (!proc)
        return -1;
    const std::string self = own_number(proc.get());
    wanted.proc = proc.get();
    // A process file system can be mounted so that it does not even list what may not be looked
    // into. Process 1 is always there.
    if (FileIdentity first{}; !identify(proc.get(), "1", first))
        report_blindness("1", errno);
    pid_t found = -1; // stays where the listing broke off
    const bool may_be_used = any_number(proc.get(), [&](const char *process) {
        if (process != self && uses_file(wanted, process))
            found = to_pid(process);
        return found > 0;
    });
    return may_be_used ? found : 0;
}

} // namespace

pid_t find_process_using_file(int path_fd) {
    Search wanted{};
    struct statfs file_system {};
    if (!identify(path_fd, "", wanted.file) ||
        !identify_for_kernel(path_fd, wanted.identity_in_maps) ||
        fstatfs(path_fd, &file_system) != 0)
        return -1;
    wanted.can_be_mapped = true;
    wanted.is_on_overlay = file_system.f_type == OVERLAYFS_SUPER_MAGIC;
    return find_process(wanted);
}

pid_t find_process_with_open_file(const FileIdentity &file) {
    Search wanted{};
    wanted.file = file;
    return find_process(wanted);
}

bool service_has_open(int path_fd) {
    FileIdentity file{};
    const UniqueFd descriptors = open_directory(AT_FDCWD, "/proc/self/fd");
    if (!descriptors || !identify(path_fd, "", file))
        return true;
    return any_number(descriptors.get(), [&](const char *number) {
        FileIdentity open_file{};
        const int fd = to_pid(number);
        return identify(fd, "", open_file) && open_file == file &&
               (fcntl(fd, F_GETFL) & O_PATH) == 0;
    });
}
