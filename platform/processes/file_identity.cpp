#include "platform/processes/file_identity.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

bool identify(int at, const char *name, file_identity &identity) {
    struct statx status {};
    if (statx(at, name, AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT | AT_EMPTY_PATH, STATX_INO, &status) !=
        0)
        return false;
    identity = {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
    return true;
}
