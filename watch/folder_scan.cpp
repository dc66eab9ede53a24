#include "watch/folder_scan.h"

#include "base/diagnostics.h"
#include "base/handles.h"
#include "delivery/deliver_file.h"
#include "delivery/item_context.h"
#include "service/main_storage.h"
#include "watch/cpprealpath.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

void locate_target(ItemContext &target, const WatchEntry &entry) {
    target.set_file_location(entry.target_file);
    target.open_directory();
}

const char *why_not_scanned(const std::string &watch_realpath, const std::string &target_realpath) {
    if (watch_realpath.empty() || target_realpath.empty())
        return "Not possible to check";
    const bool are_below =
        is_under_main_path(watch_realpath) && is_under_main_path(target_realpath);
    return are_below ? nullptr : "Path(s) do not validate";
}

const char *next_candidate(DIR *watch_dir, const WatchEntry &entry) {
    struct stat status {};
    while (const dirent *item = readdir(watch_dir)) {
        const char *name = item->d_name;
        if (name[0] != '.' && fstatat(dirfd(watch_dir), name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
            S_ISREG(status.st_mode) && entry.matches(name))
            return name;
    }
    return nullptr;
}

namespace {

// The paths of the opened directories, not a second resolution of the configured texts: what is
// validated here is what is read and written later.
bool directories_validate(DIR *watch_dir, const ItemContext &target) {
    const std::string target_realpath = procfs_fd_realpath(target.dir_fd());
    const std::string watch_realpath = procfs_fd_realpath(dirfd(watch_dir));
    diag("watch realpath: %s\n", watch_realpath.c_str());
    diag("target realpath: %s\n", target_realpath.c_str());
    const char *reason = why_not_scanned(watch_realpath, target_realpath);
    if (reason != nullptr)
        diag("%s\n", reason);
    return reason == nullptr;
}

} // namespace

void check_watch_folder(const WatchEntry &entry) {
    diag("Checking '%s' in '%s'\n", entry.name.c_str(), entry.watch_path.c_str());
    diag("  if new entries replace '%s'\n", entry.target_file.c_str());
    UniqueDir watch_dir(opendir(entry.watch_path.c_str()));
    if (watch_dir == nullptr) {
        diag("* cannot scan directory, %s\n", strerror(errno));
        return;
    }
    ItemContext target;
    locate_target(target, entry);
    if (directories_validate(watch_dir.get(), target))
        if (const char *name = next_candidate(watch_dir.get(), entry))
            deliver_file(watch_dir.get(), name, target, entry);
    target.close_file_handles();
    watch_dir.reset();
}
