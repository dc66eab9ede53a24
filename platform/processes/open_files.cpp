#include "platform/include/process_util.h"

#include "base/handles.h"

#include <climits>
#include <cstdlib>

void fd_debug_dump_open_files(FILE *stream) {
    const unique_dir listing(opendir("/proc/self/fd"));
    if (listing == nullptr)
        return;
    const int own = dirfd(listing.get());
    while (const dirent *item = readdir(listing.get())) {
        const int fd = static_cast<int>(strtol(item->d_name, nullptr, 10));
        if (item->d_name[0] == '.' || fd == own)
            continue;
        char target[PATH_MAX];
        const ssize_t length = readlinkat(own, item->d_name, target, sizeof(target));
        if (length > 0)
            fprintf(stream, "fd %d: %.*s\n", fd, static_cast<int>(length), target);
    }
}
