#include "delivery/delivery_plan.h"

#include "delivery/cppmetadir.h"

#include <cerrno>
#include <climits>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

DeliveryPlan plan_delivery(int watch_fd, const std::string &name, int target_fd,
                           const std::string &target_name, int archive_fd,
                           const std::string &archive_name) {
    const std::string target_metadir = file_to_metadir(target_name);
    return {{target_fd, target_name, archive_fd, archive_name, MoveRule::must_be_gone,
             "Cannot move ARCHIVE file into directory"},
            {target_fd, target_metadir, archive_fd, file_to_metadir(archive_name), MoveRule::plain,
             "Cannot move ARCHIVE file metadata into directory"},
            {watch_fd, name, target_fd, target_name, MoveRule::never_replace,
             "Cannot move NEW file into directory"},
            {watch_fd, file_to_metadir(name), target_fd, target_metadir, MoveRule::plain,
             "Cannot move NEW file metadata into directory"}};
}

bool may_rename_in(int dir_fd) {
    // A hard link to a directory is always refused. An id-mapped mount that does not map the user
    // refuses it earlier, with another error.
    if (dir_fd >= 0 && linkat(dir_fd, ".", dir_fd, ".no name", 0) != 0 && errno == EOVERFLOW)
        return false;
    return dir_fd < 0 || faccessat(dir_fd, ".", W_OK | X_OK, AT_EACCESS) == 0;
}

int why_not_moved(const Move &move, bool is_free) {
    const char *name = move.name.c_str();
    const char *new_name = move.new_name.c_str();
    if (move.name.empty() || move.new_name.empty() || move.from_fd < 0)
        return ENOENT;
    // Nothing is ever renamed to ".", but the mounts are compared before that is refused.
    if (renameat(move.from_fd, name, move.to_fd, ".") != 0 && errno == EXDEV)
        return EXDEV;
    struct stat item {};
    struct stat other {};
    if (fstatat(move.from_fd, name, &item, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    const bool is_taken = fstatat(move.to_fd, new_name, &other, AT_SYMLINK_NOFOLLOW) == 0;
    if (move.new_name.size() > NAME_MAX)
        return ENAMETOOLONG;
    const bool is_directory = S_ISDIR(item.st_mode);
    struct stat from {};
    struct stat to {};
    fstat(move.from_fd, &from);
    fstat(move.to_fd, &to);
    if (is_directory && to.st_ino == item.st_ino)
        return EINVAL; // into itself
    if (is_taken && is_free && other.st_ino == item.st_ino && move.name == move.new_name)
        return ENOENT; // it is the item that has moved away
    // In another parent the entry ".." of a directory changes.
    if (!may_rename_in(move.from_fd) || !may_rename_in(move.to_fd) ||
        (is_directory && from.st_ino != to.st_ino &&
         faccessat(move.from_fd, name, W_OK, AT_EACCESS) != 0))
        return errno;
    if (!is_taken || is_free)
        return 0;
    if (is_directory != S_ISDIR(other.st_mode))
        return is_directory ? ENOTDIR : EISDIR;
    std::error_code failure;
    const std::string there = "/proc/self/fd/" + std::to_string(move.to_fd) + "/" + move.new_name;
    return is_directory && !std::filesystem::is_empty(there, failure) ? ENOTEMPTY : 0;
}
