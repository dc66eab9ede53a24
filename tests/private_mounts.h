// Mounts that only the test program and its children see.
#ifndef TESTS_PRIVATE_MOUNTS_H
#define TESTS_PRIVATE_MOUNTS_H

#include "tests/support.h"

#include <sched.h>
#include <sys/mount.h>

// Enters a mount namespace, as an ordinary user by way of a user namespace. False where that is not
// allowed. Once for the whole program.
inline bool has_private_mounts() {
    static const bool entered = [] {
        const std::string uid = std::to_string(getuid()), gid = std::to_string(getgid());
        if (unshare(CLONE_NEWNS) != 0) {
            if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
                return false;
            write_file("/proc/self/setgroups", "deny");
            write_file("/proc/self/uid_map", "0 " + uid + " 1");
            write_file("/proc/self/gid_map", "0 " + gid + " 1");
        }
        return mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    }();
    return entered;
}

inline bool mount_empty(const char *path) {
    return has_private_mounts() && mount("none", path, "tmpfs", 0, nullptr) == 0;
}

#endif
