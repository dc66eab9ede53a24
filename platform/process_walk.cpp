#include "platform/process_walk.h"

#include "compat/handles.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

constexpr size_t listing_buffer_size = size_t{32} << 10;

bool is_number(const char *name) {
    return *name >= '0' && *name <= '9';
}

// Calls visit(name) for each entry whose name is a number until it returns true, and returns
// whether one did. Reading stops at an error, which for a process means that it has gone.
template<typename Visit> bool any_number(int directory, Visit visit) {
    alignas(dirent64) char buffer[listing_buffer_size];
    ssize_t size = 0;
    while ((size = getdents64(directory, buffer, sizeof(buffer))) > 0) {
        for (ssize_t at = 0; at < size;) {
            const auto *item = reinterpret_cast<const dirent64 *>(buffer + at);
            if (is_number(item->d_name) && visit(item->d_name))
                return true;
            at += item->d_reclen;
        }
    }
    return false;
}

// The service's number in this process file system, which need not be that of its own pid
// namespace.
std::string own_number(int proc) {
    char number[16];
    const ssize_t length = readlinkat(proc, "self", number, sizeof(number));
    return std::string(number, length > 0 ? static_cast<size_t>(length) : 0);
}

bool process_has_open(int proc, const char *number, const file_identity &file) {
    const std::string name = std::string(number) + "/fd";
    const unique_fd descriptors(
        openat(proc, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    return descriptors && any_number(descriptors.get(), [&](const char *descriptor) {
               file_identity open_file{};
               return identify(descriptors.get(), descriptor, open_file) && open_file == file;
           });
}

} // namespace

bool identify(int at, const char *name, file_identity &identity) {
    struct statx status {};
    if (statx(at, name, AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT | AT_EMPTY_PATH, STATX_INO, &status) !=
        0)
        return false;
    identity = {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_ino};
    return true;
}

pid_t find_process_with_open_file(const file_identity &file) {
    const unique_fd proc(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!proc)
        return -1;
    const std::string self = own_number(proc.get());
    pid_t found = 0;
    any_number(proc.get(), [&](const char *number) {
        if (number != self && process_has_open(proc.get(), number, file))
            found = static_cast<pid_t>(strtol(number, nullptr, 10));
        return found != 0;
    });
    return found;
}

bool service_has_open(const file_identity &file) {
    const unique_fd own(open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return !own || any_number(own.get(), [&](const char *descriptor) {
        const auto fd = static_cast<int>(strtol(descriptor, nullptr, 10));
        file_identity open_file{};
        return identify(fd, "", open_file) && open_file == file &&
               (fcntl(fd, F_GETFL) & O_PATH) == 0;
    });
}
