#include "check/entry_facts.h"

#include "base/handles.h"
#include "delivery/item_context.h"
#include "watch/cpprealpath.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>

namespace {

unique_fd open_directory_at(int at, const char *path) {
    return unique_fd(openat(at, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

bool has_capability(int capability) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    return syscall(SYS_capget, &header, data) == 0 && (data[0].effective & 1U << capability) != 0;
}

// Asks with the effective user and its capabilities; a read-only file system is an answer too. A
// directory that takes names but lets none go refuses as well.
int rename_error_of(int fd, const struct statx &status) {
    // No directory gets a second name. Before that is refused comes what a mount says that does not
    // map the user.
    if (linkat(fd, ".", fd, ".no second name", 0) != 0 && errno == EOVERFLOW)
        return EOVERFLOW;
    if (faccessat(fd, ".", W_OK | X_OK, AT_EACCESS) != 0)
        return errno;
    if ((status.stx_attributes & (STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND)) != 0)
        return EPERM;
    const bool is_sticky = (status.stx_mode & S_ISVTX) != 0;
    return is_sticky && status.stx_uid != geteuid() && !has_capability(CAP_FOWNER) ? EPERM : 0;
}

directory_facts facts_of(int fd) {
    directory_facts facts;
    struct statx status {};
    struct statfs system {};
    facts.open_error =
        fd < 0 || fstatfs(fd, &system) != 0 ||
                statx(fd, "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0
            ? errno
            : 0;
    if (facts.open_error != 0)
        return facts;
    facts.path = procfs_fd_realpath(fd);
    facts.device = makedev(status.stx_dev_major, status.stx_dev_minor);
    facts.inode = status.stx_ino;
    facts.mount = (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id : 0;
    facts.type = static_cast<uint32_t>(system.f_type);
    facts.rename_error = rename_error_of(fd, status);
    return facts;
}

} // namespace

bool is_ordinary_user() {
    return geteuid() != 0 && !has_capability(CAP_DAC_OVERRIDE);
}

directory_facts collect_directory_facts(const std::string &path) {
    return facts_of(open_directory_at(AT_FDCWD, path.c_str()).get());
}

entry_facts collect_facts(const WatchEntry &entry) {
    entry_facts facts;
    facts.watch = collect_directory_facts(entry.watch_path);
    ItemContext target;
    if (!target.set_file_location(entry.target_file))
        return facts;
    facts.target_name = target.file_name();
    facts.target_directory = target.dir_path();
    const unique_fd target_fd = open_directory_at(AT_FDCWD, target.dir_path());
    facts.target = facts_of(target_fd.get());
    if (!target_fd)
        return facts;
    facts.archive = facts_of(open_directory_at(target_fd.get(), "ARCHIVE").get());
    struct stat status {};
    if (facts.archive.open_error == ENOENT &&
        fstatat(target_fd.get(), "ARCHIVE", &status, AT_SYMLINK_NOFOLLOW) == 0)
        facts.archive.open_error = ENOTDIR; // a link to nothing, which the service cannot make anew
    if (fstatat(target_fd.get(), target.file_name(), &status, AT_SYMLINK_NOFOLLOW) == 0)
        facts.target_mode = status.st_mode;
    return facts;
}
