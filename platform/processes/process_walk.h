// A walk over the process file system: which process uses a file?
//
// Errors: a process, thread or descriptor that vanishes meanwhile is passed over.
// Prints: "Warning: a file in use may not be noticed, cannot look into process %s, %s", once.
#ifndef PLATFORM_PROCESSES_PROCESS_WALK_H
#define PLATFORM_PROCESSES_PROCESS_WALK_H

#include "platform/processes/file_identity.h"

#include <sys/types.h>

// The first two functions give the id of a process other than the service; 0 when there is none, -1
// with errno when the file cannot be identified or the process file system cannot be listed.
// Descriptors opened with O_PATH do not count in any of the three.

// A process that uses the regular file of an O_PATH descriptor: it, or one of its threads that has
// descriptors of its own, has it open, mapped (even after close) or is executing it.
pid_t find_process_using_file(int path_fd);

// A process that has open a file that can be neither mapped nor executed.
pid_t find_process_with_open_file(const FileIdentity &file);

// Does the service itself have the file of an O_PATH descriptor open, for example by an inherited
// descriptor?
bool service_has_open(int path_fd);

#endif
