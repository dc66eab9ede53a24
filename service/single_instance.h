// Two guards of the process: a lock that keeps a second copy from running, and the PID file.
//
// Owns:   the lock's descriptor until the process ends, however it ends.
// Prints: "Unable to write PID file %s".
#ifndef SERVICE_SINGLE_INSTANCE_H
#define SERVICE_SINGLE_INSTANCE_H

#include <string>

extern int instance_lock_fd;
extern bool instance_lock_held;
extern std::string pid_file_path;

// Takes the lock on the service's own executable file. True only when another process holds it; a
// lock that cannot be tried counts as free.
bool service_already_running();

// False when the PID file cannot be opened for writing. What is written after that is not checked.
[[nodiscard]] bool write_pid_file();

void remove_pid_file();

#endif
