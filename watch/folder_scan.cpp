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

namespace {

void locate_target(ItemContext &target, const WatchEntry &entry) {
    target.set_file_location(entry.target_file);
    if (target.dir_fd() < 0 && target.dir_path() != nullptr)
        target.open_directory();
}

// The paths of the opened directories, not a second resolution of the configured texts: what is
// validated here is what is read and written later.
bool directories_validate(DIR *watch_dir, const ItemContext &target) {
    const std::string target_realpath = procfs_fd_realpath(target.dir_fd());
    const std::string watch_realpath = procfs_fd_realpath(dirfd(watch_dir));
    diag("watch realpath: %s\n", watch_realpath.c_str());
    diag("target realpath: %s\n", target_realpath.c_str());
    if (watch_realpath.empty() || target_realpath.empty()) {
        diag("Not possible to check\n");
        return false;
    }
    if (!is_under_main_path(watch_realpath) || !is_under_main_path(target_realpath)) {
        diag("Path(s) do not validate\n");
        return false;
    }
    return true;
}

bool is_candidate(int watch_fd, const char *name, const WatchEntry &entry) {
    struct stat status {};
    return name[0] != '.' && fstatat(watch_fd, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(status.st_mode) && entry.matches(name);
}

void deliver_first_candidate(DIR *watch_dir, ItemContext &target, const WatchEntry &entry) {
    while (const dirent *item = readdir(watch_dir)) {
        if (is_candidate(dirfd(watch_dir), item->d_name, entry)) {
            deliver_file(watch_dir, item->d_name, target, entry);
            return;
        }
    }
}

} // namespace

void check_watch_folder(const WatchEntry &entry) {
    diag("Checking '%s' in '%s'\n", entry.name.c_str(), entry.watch_path.c_str());
    diag("  if new entries replace '%s'\n", entry.target_file.c_str());
    unique_dir watch_dir(opendir(entry.watch_path.c_str()));
    if (watch_dir == nullptr) {
        diag("* cannot scan directory, %s\n", strerror(errno));
        return;
    }
    ItemContext target;
    locate_target(target, entry);
    if (directories_validate(watch_dir.get(), target))
        deliver_first_candidate(watch_dir.get(), target, entry);
    target.close_file_handles();
    watch_dir.reset();
}
