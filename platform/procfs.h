/* Questions to the kernel about other processes: is a file in use, who serves a socket.
 *
 * Errors: a question that cannot be answered gives -1 with errno.
 * Prints: nothing.
 */
#ifndef PLATFORM_PROCFS_H
#define PLATFORM_PROCFS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* A process that uses a file. */
typedef struct procfs_path_in_use_info {
    int32_t pid;
} procfs_path_in_use_info;

/* 1 when another process has the file at path open, 0 when none has or there is no such file. Files
 * are compared by device and inode: symbolic links are followed, hard links and other mounts found.
 * The service's own descriptors never count. With max_info above 0 the first process found is
 * stored in info[0]. flags must be 0. Reads no file and never waits for one. */
int procfs_path_in_use(const char *path, procfs_path_in_use_info *info, unsigned long max_info,
                       unsigned int flags);

/* The process that has open the socket bound to the socket file at path and listening there, or,
 * for a datagram socket, bound there; -1 when there is none, 0 when there is one but its process
 * cannot be seen. The socket is found by the bound file itself, whatever text it was bound under;
 * no connection is made. flags selects nothing and is there for compatibility. */
int32_t get_socket_server_pid(const char *path, int flags);

#ifdef __cplusplus
}
#endif

#endif
