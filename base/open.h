// Opening a path on which others can put links, and the errors that say nothing about a file.
#ifndef BASE_OPEN_H
#define BASE_OPEN_H

#include "base/handles.h"

#include <cerrno>

// Opens like openat, but fails with ELOOP at a magic link of the process file system, such as
// /proc/PID/root. That leads past every permission into the mounts of another process, where a file
// system of its user may keep the caller waiting for ever. Other links are followed. On a kernel
// without openat2 magic links are followed too.
UniqueFd open_without_magic_links(int at, const char *path, int flags);

// Is the service or the machine short of something at the moment?
inline bool is_shortage(int error) {
    return error == ENOMEM || error == EMFILE || error == ENFILE;
}

#endif
