// Questions to the kernel about other processes: is a file in use, who serves a socket.
//
// Errors: what cannot be told counts as in use and as served: better an item that waits than one
//         cut short.
// Prints: "Warning: a file in use may not be noticed, cannot look into process %s, %s" and
//         "Warning: running items may not be told from stopped ones, cannot ask the kernel for
//         sockets, %s", each once.
#ifndef PLATFORM_INCLUDE_PROCFS_H
#define PLATFORM_INCLUDE_PROCFS_H

#include <stdint.h>

extern "C" {

// A process that uses a file.
typedef struct procfs_path_in_use_info {
    int32_t pid; // 0 if not determined
} procfs_path_in_use_info;

// With this flag, procfs_path_in_use looks for the process also when it has the answer without.
#define PROCFS_FIND_HOLDER 1U

// 1 when something other than the service uses the regular file at path, or when that cannot be
// told; 0 when nothing does or there is no such file. Symbolic links are followed. The file itself
// counts, not its name: hard links and other mounts are found. The service's own descriptors,
// inherited ones included, never count. Reads no file. With max_info above 0, info[0].pid is set.
//
// The answer comes from a write lease where the kernel grants or refuses one for every use of the
// file, else from a walk over the processes.
int procfs_path_in_use(const char *path, procfs_path_in_use_info *info, unsigned long max_info,
                       unsigned int flags);

// With this flag, get_socket_server_pid looks for no process.
#define SOCKET_SERVER_NO_PID 1

// The pid, or 0 if not determined, of the process that serves the socket file at path: its socket
// is bound to the file and, unless a datagram socket, listens. -1 when none does. The socket is
// found by the file, whatever path it was bound under; no connection is made. Sockets in other
// network namespaces (containers) cannot be seen.
int32_t get_socket_server_pid(const char *path, int flags);
}

#endif
