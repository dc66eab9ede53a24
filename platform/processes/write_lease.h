// The kernel's own answer to whether a file is in use: would it grant a write lease on it?
//
// It grants one only while nobody else has the file open, mapped or is executing it. Descriptors
// opened with O_PATH do not count. A grant takes the same few microseconds whatever the number of
// processes.
#ifndef PLATFORM_PROCESSES_WRITE_LEASE_H
#define PLATFORM_PROCESSES_WRITE_LEASE_H

enum class lease_answer {
    unused,   // no process has the file open, mapped or is executing it
    used,     // something has: a process, the service itself included, or the kernel
    no_answer // not a regular file, not ours to ask about, or a file system that does not know
};

// Asks about the file of an O_PATH descriptor and gives the lease back at once. Somebody who opens
// the file in that moment waits for it or, with O_NONBLOCK, is told to try again. Reads nothing. A
// refusal is asked for three times within 6 ms. errno is undefined afterwards.
lease_answer ask_for_write_lease(int path_fd);

#endif
