/* Questions to the kernel about other processes: is a file in use, who serves a socket.
 *
 * Errors: what cannot be told counts as in use and as served: better an item that waits than one
 * cut short. Prints: "Warning: a file in use may not be noticed, cannot look into process %s, %s",
 * once.
 */
#ifndef PLATFORM_INCLUDE_PROCFS_H
#define PLATFORM_INCLUDE_PROCFS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A process that uses a file; 0 when there is one that was not looked for. */
typedef struct procfs_path_in_use_info {
    int32_t pid;
} procfs_path_in_use_info;

/* 1 when something other than the service uses the file at path, or when that cannot be told; 0
 * when nothing does or there is no such file; -1 with errno for flags other than 0. Symbolic links
 * are followed; the file itself counts, not its name: hard links and other mounts are found. The
 * service's own descriptors, inherited ones included, never count.
 *
 * Asks the kernel for a write lease, which answers for every way to use a regular file and takes
 * the same time whatever the number of processes. Where the kernel does not answer, or the service
 * itself has the file open, the process file system is walked: not a regular file, a file of
 * another owner without CAP_LEASE, a network file system, an overlay, a file system without leases.
 *
 * With max_info above 0, info[0].pid becomes the first process that a walk found, and 0 when the
 * answer came without a walk or is not 1. Reads no file and never waits for one.
 */
int procfs_path_in_use(const char *path, procfs_path_in_use_info *info, unsigned long max_info,
                       unsigned int flags);

/* The process that has open the socket bound to the socket file at path and listening there, or,
 * for a datagram socket, bound there; -1 when there is none, 0 when there is one but its process
 * cannot be seen, and when that cannot be told. The socket is found by the bound file itself,
 * whatever text it was bound under; no connection is made. flags selects nothing and is there for
 * compatibility. */
int32_t get_socket_server_pid(const char *path, int flags);

#ifdef __cplusplus
}
#endif

#endif
