// The kernel's own answer to whether a file is in use: would it grant a write lease on it?
//
// The kernel grants one only while nobody else has the file open, mapped or running, however they
// came by it. Descriptors opened with O_PATH, which can neither read nor write, are no use of a
// file. Takes the same few microseconds whatever the number of processes.
#ifndef PLATFORM_PROCESSES_WRITE_LEASE_H
#define PLATFORM_PROCESSES_WRITE_LEASE_H

enum class lease_answer {
    unused,   // no process has the file open, mapped or running
    used,     // something has: a process, the service itself included, or the kernel
    no_answer // not a regular file, not ours to ask about, or a file system that does not know
};

// Asks about the file of an O_PATH descriptor. The lease is given back before the function returns;
// somebody who opens the file in that microsecond is held up for it or, with O_NONBLOCK, told to
// try again. Reads nothing and waits for nobody. Keeps no errno.
lease_answer ask_for_write_lease(int path_fd);

#endif
