#include "platform/procfs.h"

#include "platform/process_walk.h"

#include <cerrno>
#include <fcntl.h>

int procfs_path_in_use(const char *path, procfs_path_in_use_info *info, unsigned long max_info,
                       unsigned int flags) {
    if (flags != 0) {
        errno = EINVAL;
        return -1;
    }
    file_identity file{};
    if (!identify(AT_FDCWD, path, file))
        return errno == ENOENT || errno == ENOTDIR ? 0 : -1;
    const pid_t holder = find_process_with_open_file(file);
    if (holder > 0 && info != nullptr && max_info > 0)
        info[0].pid = holder;
    return holder > 0 ? 1 : holder;
}
