// The path that the kernel holds for an open descriptor.
#ifndef WATCH_CPPREALPATH_H
#define WATCH_CPPREALPATH_H

#include <string>

// Empty for a negative descriptor or one that cannot be resolved; cut to 4095 bytes.
// errno is undefined afterwards.
std::string procfs_fd_realpath(int fd);

#endif
