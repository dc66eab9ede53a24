// A walk over the process file system: who holds a file open?
#ifndef PLATFORM_PROCESS_WALK_H
#define PLATFORM_PROCESS_WALK_H

#include <sys/types.h>

// What makes two descriptors be on the same file.
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

// The id of a process other than the service that has the file open; 0 when there is none, -1 with
// errno when the process file system cannot be listed. Processes and descriptors that vanish
// meanwhile, and those of processes that may not be looked at, are passed over. Holds two
// descriptors.
pid_t find_process_with_open_file(const file_identity &file);

// Has the service itself the file open, with anything but O_PATH? True also when that cannot be
// told. Holds one descriptor.
bool service_has_open(const file_identity &file);

#endif
