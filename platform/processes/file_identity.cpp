#include "platform/processes/file_identity.h"

#include "base/handles.h"
#include "platform/processes/proc_tables.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

bool identify(int at, const char *name, FileIdentity &identity) {
    struct statx status {};
    if (statx(at, name, AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT | AT_EMPTY_PATH, STATX_INO, &status) !=
        0)
        return false;
    identity = {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
    return true;
}

bool identify_for_kernel(int fd, FileIdentity &identity) {
    struct statx status {};
    if (statx(fd, "", AT_STATX_DONT_SYNC | AT_EMPTY_PATH, STATX_INO | STATX_MNT_ID, &status) != 0)
        return false;
    identity = {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
    // A mount that cannot be reached from the root of a chroot is not listed.
    const UniqueFile mounts(fopen("/proc/self/mountinfo", "re"));
    return mounts != nullptr &&
           find_device_of_mount(mounts.get(), status.stx_mnt_id, identity.device);
}
