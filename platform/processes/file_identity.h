// Which file is it? What makes two descriptors, or two names, be on the same one.
#ifndef PLATFORM_PROCESSES_FILE_IDENTITY_H
#define PLATFORM_PROCESSES_FILE_IDENTITY_H

#include <cerrno>
#include <sys/types.h>

struct file_identity {
    dev_t device;
    ino_t inode;
};

inline bool operator==(const file_identity &a, const file_identity &b) {
    return a.inode == b.inode && a.device == b.device;
}

// The identity of the file that a name leads to, links followed, or, with an empty name, of the
// descriptor's own file. Taken from what the kernel has at hand: a file on a dead network server
// must not hold anybody up. False with errno.
[[nodiscard]] bool identify(int at, const char *name, file_identity &identity);

// Does an error say that the name leads to no file? Any other leaves open what is there.
inline bool says_nothing_is_there(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

#endif
