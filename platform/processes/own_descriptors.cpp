#include "platform/processes/own_descriptors.h"

#include "base/handles.h"
#include "platform/processes/file_identity.h"

#include <cstdint>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>

bool service_has_open(int path_fd) {
    file_identity file{};
    struct statx listing {};
    if (!identify(path_fd, "", file) ||
        statx(AT_FDCWD, "/proc/self/fd", 0, STATX_SIZE, &listing) != 0)
        return true;
    int seen = 0;
    const auto holds = [&](int fd) {
        file_identity open_file{};
        const bool is_open = identify(fd, "", open_file);
        seen += is_open ? 1 : 0;
        return is_open && open_file == file && (fcntl(fd, F_GETFL) & O_PATH) == 0;
    };
    // The size is the number of descriptors, from Linux 6.2 on. The one that was opened last took
    // the lowest free number: as a rule all are up to it, and need not be listed.
    if (listing.stx_size == static_cast<uint64_t>(path_fd) + 1) {
        for (int fd = 0; fd <= path_fd; ++fd)
            if (holds(fd))
                return true;
        if (seen == path_fd + 1)
            return false;
    }
    const unique_dir own(opendir("/proc/self/fd"));
    if (own == nullptr)
        return true;
    while (const dirent *item = readdir(own.get()))
        if (item->d_name[0] != '.' && holds(static_cast<int>(strtol(item->d_name, nullptr, 10))))
            return true;
    return false;
}
