#include "platform/processes/write_lease.h"

#include "base/handles.h"

#include <csignal>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>

namespace {

constexpr unsigned int afs_magic = 0x6b414653; // the kernel's own AFS; AFS_SUPER_MAGIC is OpenAFS

enum class lease_scope {
    every_holder, // leases and openings meet in one place, this kernel
    openers,      // a refusal is right, but a grant does not exclude a use
    elsewhere     // a server decides: a refusal may only mean that it delegates nothing
};

lease_scope scope_of_leases(int fd) {
    struct statfs file_system {};
    if (fstatfs(fd, &file_system) != 0)
        return lease_scope::elsewhere;
    // The field is signed and of another width than the numbers.
    switch (static_cast<unsigned int>(file_system.f_type)) {
    case OVERLAYFS_SUPER_MAGIC:
    case FUSE_SUPER_MAGIC:
        return lease_scope::openers;
    case NFS_SUPER_MAGIC:
    case SMB_SUPER_MAGIC:
    case SMB2_SUPER_MAGIC:
    case CIFS_SUPER_MAGIC:
    case CEPH_SUPER_MAGIC:
    case AFS_SUPER_MAGIC:
    case afs_magic:
    case CODA_SUPER_MAGIC:
    case V9FS_MAGIC:
    case OCFS2_SUPER_MAGIC:
        return lease_scope::elsewhere;
    default:
        return lease_scope::every_holder;
    }
}

bool is_regular_file(int fd) {
    struct stat status {};
    return fstat(fd, &status) == 0 && S_ISREG(status.st_mode);
}

// A second descriptor on the same file, whatever its name leads to by now. A path descriptor cannot
// carry a lease.
unique_fd open_for_reading(int path_fd) {
    char name[32];
    snprintf(name, sizeof(name), "/proc/self/fd/%d", path_fd);
    return unique_fd(open(name, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

// A scanner that is asked before each opening (fanotify) still holds the descriptor that it was
// given for ours, so a refusal is asked for again, on the same descriptor.
bool take_lease(int fd) {
    bool granted = fcntl(fd, F_SETLEASE, F_WRLCK) == 0;
    for (const long wait_ms : {1, 5}) {
        if (granted || errno != EAGAIN)
            break;
        const timespec wait{0, wait_ms * 1000000};
        nanosleep(&wait, nullptr);
        granted = fcntl(fd, F_SETLEASE, F_WRLCK) == 0;
    }
    return granted;
}

} // namespace

lease_answer ask_for_write_lease(int path_fd) {
    if (!is_regular_file(path_fd))
        return lease_answer::no_answer;
    const lease_scope scope = scope_of_leases(path_fd);
    if (scope == lease_scope::elsewhere)
        return lease_answer::no_answer;
    const unique_fd fd = open_for_reading(path_fd);
    if (!fd) // EWOULDBLOCK: somebody holds a lease of their own and has to give it up first
        return errno == EWOULDBLOCK ? lease_answer::used : lease_answer::no_answer;
    // An opener that comes while the lease is held has a signal sent here: by default SIGIO, which
    // ends the process. SIGURG is ignored by default.
    if (fcntl(fd.get(), F_SETSIG, SIGURG) != 0)
        return lease_answer::no_answer;
    if (!take_lease(fd.get()))
        return errno == EAGAIN ? lease_answer::used : lease_answer::no_answer;
    fcntl(fd.get(), F_SETLEASE, F_UNLCK); // at once: an opener may be waiting
    return scope == lease_scope::every_holder ? lease_answer::unused : lease_answer::no_answer;
}
