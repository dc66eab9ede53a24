// What makes two descriptors, or two names, lead to the same file.
#ifndef PLATFORM_PROCESSES_FILE_IDENTITY_H
#define PLATFORM_PROCESSES_FILE_IDENTITY_H

#include <cerrno>
#include <sys/types.h>

struct FileIdentity {
    dev_t device;
    ino_t inode;
};

inline bool operator==(const FileIdentity &a, const FileIdentity &b) {
    return a.inode == b.inode && a.device == b.device;
}

// The identity of the file that a name leads to, links followed, or, with an empty name, of the
// descriptor's own file. No network server is asked: one that is down must not hold the caller
// up. False with errno.
[[nodiscard]] bool identify(int at, const char *name, FileIdentity &identity);

// The identity of a descriptor's file as the kernel itself has it, in tables of mappings and of
// sockets. Where a file system gives its files device numbers of their own (subvolumes, overlays),
// the device is that of the mount. False with errno.
[[nodiscard]] bool identify_for_kernel(int fd, FileIdentity &identity);

// Does an error say that a path leads to no file? Any other error leaves that open.
inline bool means_absent(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP || error == ENAMETOOLONG;
}

#endif
