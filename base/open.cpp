#include "base/open.h"

#include <cstdint>
#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/syscall.h>

UniqueFd open_without_magic_links(int at, const char *path, int flags) {
    open_how how{};
    how.flags = static_cast<uint64_t>(flags);
    how.resolve = RESOLVE_NO_MAGICLINKS;
    const long fd = syscall(SYS_openat2, at, path, &how, sizeof(how));
    return UniqueFd(fd < 0 && errno == ENOSYS ? openat(at, path, flags) : static_cast<int>(fd));
}
