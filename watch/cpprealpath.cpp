#include "watch/cpprealpath.h"

#include <cassert>
#include <cstdio>
#include <unistd.h>

std::string procfs_fd_realpath(int fd) {
    if (fd < 0)
        return "";
    char link[128];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    char path[4096];
    const ssize_t rd = readlink(link, path, sizeof(path) - 1);
    if (rd <= 0)
        return "";
    assert((size_t)rd < sizeof(path));
    path[rd] = '\0';
    return path;
}
