#include "platform/include/procfs.h"

#include "base/open.h"
#include "platform/processes/file_identity.h"
#include "platform/processes/process_walk.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <iterator>
#include <linux/magic.h>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace {

enum class LeaseAnswer {
    unused,   // no process has the file open, mapped or is executing it
    used,     // something has: a process, the service itself included, or the kernel
    no_answer // not ours to ask about, or a file system that does not know
};

constexpr unsigned int afs_magic = 0x6b414653; // the kernel's own AFS; AFS_SUPER_MAGIC is OpenAFS

// Here a server decides: a refusal may only mean that it delegates nothing.
constexpr unsigned int remote_file_systems[] = {
    NFS_SUPER_MAGIC, SMB_SUPER_MAGIC, SMB2_SUPER_MAGIC, CIFS_SUPER_MAGIC, CEPH_SUPER_MAGIC,
    AFS_SUPER_MAGIC, afs_magic,       CODA_SUPER_MAGIC, V9FS_MAGIC,       OCFS2_SUPER_MAGIC};

// A second descriptor on the same file, whatever its name leads to by now. A path descriptor cannot
// carry a lease.
UniqueFd open_for_reading(int path_fd) {
    const std::string name = "/proc/self/fd/" + std::to_string(path_fd);
    return UniqueFd(open(name.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

long times_slept() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    return usage.ru_nvcsw;
}

// A scanner that is asked before each opening (fanotify) still holds the descriptor that it was
// given for ours, so a refusal is asked for again, on the same descriptor. The scanner makes the
// opener sleep; nothing else does with a local file that is cached.
bool take_lease(int fd, long slept_before_opening) {
    for (const long wait_ms : {1, 5}) {
        if (fcntl(fd, F_SETLEASE, F_WRLCK) == 0)
            return true;
        if (errno != EAGAIN || times_slept() == slept_before_opening)
            return false;
        const timespec wait{0, wait_ms * 1000000};
        nanosleep(&wait, nullptr);
    }
    return fcntl(fd, F_SETLEASE, F_WRLCK) == 0;
}

// Asks the kernel whether the file of an O_PATH descriptor is in use: would it grant a write lease?
// It grants one only while nobody else uses the file. That takes the same few microseconds whatever
// the number of processes. The lease is given back at once: somebody who opens the file in that
// moment waits for it or, with O_NONBLOCK, is told to try again.
LeaseAnswer ask_for_write_lease(int path_fd) {
    struct stat status {};
    struct statfs file_system {};
    if (fstat(path_fd, &status) != 0 || fstatfs(path_fd, &file_system) != 0)
        return LeaseAnswer::no_answer;
    // The field is signed and of another width than the numbers.
    const auto type = static_cast<unsigned int>(file_system.f_type);
    // These are no material, and looking at them can hang: opening /proc/PID/maps waits for that
    // process, and finding the users of a FIFO waits for each process that is looked at.
    if (!S_ISREG(status.st_mode) || type == PROC_SUPER_MAGIC)
        return LeaseAnswer::unused;
    if (std::find(std::begin(remote_file_systems), std::end(remote_file_systems), type) !=
        std::end(remote_file_systems))
        return LeaseAnswer::no_answer;
    const long slept = times_slept();
    const UniqueFd fd = open_for_reading(path_fd);
    if (!fd) // EWOULDBLOCK: somebody holds a lease of their own and has to give it up first
        return errno == EWOULDBLOCK ? LeaseAnswer::used : LeaseAnswer::no_answer;
    // An opener that comes while the lease is held has a signal sent here: by default SIGIO, which
    // ends the process. SIGURG is ignored by default.
    if (fcntl(fd.get(), F_SETSIG, SIGURG) != 0)
        return LeaseAnswer::no_answer;
    if (!take_lease(fd.get(), slept))
        return errno == EAGAIN ? LeaseAnswer::used : LeaseAnswer::no_answer;
    fcntl(fd.get(), F_SETLEASE, F_UNLCK); // at once: an opener may be waiting
    // On these a grant does not exclude a use: not every mapping is seen, nor an opening below.
    const bool is_layered = type == OVERLAYFS_SUPER_MAGIC || type == FUSE_SUPER_MAGIC;
    return is_layered ? LeaseAnswer::no_answer : LeaseAnswer::unused;
}

} // namespace

int procfs_path_in_use(const char *path, procfs_path_in_use_info *info, unsigned long max_info,
                       unsigned int flags) {
    if (max_info > 0)
        info[0].pid = 0;
    // O_PATH: no device is opened, no FIFO waited for, and the descriptor does not count as an
    // open.
    const UniqueFd file = open_without_magic_links(AT_FDCWD, path, O_PATH | O_CLOEXEC);
    if (!file) // a path too long as a whole may name a file that is there
        return means_absent(errno) && strlen(path) < PATH_MAX ? 0 : 1;
    const LeaseAnswer answer = ask_for_write_lease(file.get());
    if (answer == LeaseAnswer::unused)
        return 0;
    // The kernel does not tell whose use it is; the service's own does not count.
    const bool is_used = answer == LeaseAnswer::used && !service_has_open(file.get());
    if (is_used && (flags & PROCFS_FIND_HOLDER) == 0)
        return 1;
    const pid_t holder = find_process_using_file(file.get());
    if (holder > 0 && max_info > 0)
        info[0].pid = holder;
    return is_used || holder != 0 ? 1 : 0;
}
