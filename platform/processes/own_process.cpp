#include "platform/include/process_util.h"

#include "base/handles.h"

#include <climits>
#include <csignal>
#include <cstdlib>
#include <initializer_list>

void util_check_and_unmask_common_signals(void) {
    sigset_t common;
    sigemptyset(&common);
    for (const int signal_number : {SIGHUP, SIGINT, SIGTERM, SIGQUIT})
        sigaddset(&common, signal_number);
    sigprocmask(SIG_UNBLOCK, &common, nullptr);
}

void fd_debug_dump_open_files(FILE *stream) {
    const UniqueDir listing(opendir("/proc/self/fd"));
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
