// A walk over the process file system: which process holds a file?
//
// Errors: a process, thread or descriptor that vanishes meanwhile is passed over.
// Prints: "Warning: a file in use may not be noticed, cannot look into process %s, %s", the first
//         time only.
#ifndef PLATFORM_PROCESSES_PROCESS_WALK_H
#define PLATFORM_PROCESSES_PROCESS_WALK_H

#include "platform/processes/file_identity.h"

#include <sys/types.h>

// Both functions below give the id of a process other than the service; 0 when there is none, -1
// with errno when the process file system cannot be listed. They hold four descriptors.

// A process that uses the file of an O_PATH descriptor: it, or a thread that has descriptors of its
// own, has it open, has it mapped, though its descriptor may be closed, or runs it. A descriptor
// that was opened with O_PATH is no use. Reports a process that may not be looked into.
pid_t find_process_using_file(int path_fd);

// A process that has the file open, for what can be neither mapped nor run.
pid_t find_process_with_open_file(const file_identity &file);

#endif
