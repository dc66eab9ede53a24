// What the kernel answers when it is asked for its Unix sockets.
#ifndef PLATFORM_PROCESSES_SOCKET_ANSWER_H
#define PLATFORM_PROCESSES_SOCKET_ANSWER_H

#include "platform/processes/process_walk.h"

#include <cstddef>
#include <cstdint>
#include <string>

// The file that a socket may be bound to.
struct socket_file {
    std::string path;
    file_identity identity;
    // Subvolumes and overlays: the device is not that of the file system.
    bool has_own_device;
};

enum class answer_state { more, complete, unusable };

// Reads one part of the answer, aligned for a netlink header. Sets `inode` to the number of the
// first socket that serves the file, unless it holds one already. Tells whether more parts
// follow; a part that is cut short or is no such answer is unusable.
[[nodiscard]] answer_state read_socket_answer(const char *part, size_t size,
                                              const socket_file &file, int64_t &inode);

#endif
