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

} // namespace

bool is_ordinary_user() {
    return geteuid() != 0 && !has_capability(CAP_DAC_OVERRIDE);
}

directory_facts collect_directory_facts(const char *what, const std::string &path) {
    directory_facts facts;
    facts.configured = path;
    facts.name = what + (" '" + path + "'");
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    struct statx status {};
    struct statfs system {};
    if (!fd || fstatfs(fd.get(), &system) != 0 ||
        statx(fd.get(), "", AT_EMPTY_PATH, STATX_BASIC_STATS | STATX_MNT_ID, &status) != 0) {
        facts.open_error = errno;
        return facts;
    }
    facts.open_error = 0;
    facts.path = procfs_fd_realpath(fd.get());
    facts.device = makedev(status.stx_dev_major, status.stx_dev_minor);
    facts.inode = status.stx_ino;
    facts.mount = (status.stx_mask & STATX_MNT_ID) != 0 ? status.stx_mnt_id : 0;
    facts.type = static_cast<uint32_t>(system.f_type);
    facts.rename_error = rename_error_of(fd.get(), status);
    return facts;
}

known_entry collect_facts(const WatchEntry &entry) {
    known_entry known{&entry, collect_directory_facts("watch path", entry.watch_path), {}, {}, "",
                      0};
    ItemContext target;
    if (!target.set_file_location(entry.target_file))
        return known;
    known.target_name = target.file_name();
    const std::string directory = target.dir_path();
    known.target = collect_directory_facts("target directory", directory);
    known.archive = collect_directory_facts("ARCHIVE directory", directory + "/ARCHIVE");
    struct stat status {};
    if (known.archive.open_error == ENOENT && lstat((directory + "/ARCHIVE").c_str(), &status) == 0)
        known.archive.open_error = ENOTDIR; // a link to nothing, which the service cannot make anew
    if (lstat((directory + "/" + known.target_name).c_str(), &status) == 0)
        known.target_mode = status.st_mode;
    return known;
}
