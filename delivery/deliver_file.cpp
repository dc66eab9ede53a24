#include "delivery/deliver_file.h"

#include "base/diagnostics.h"
#include "base/handles.h"
#include "base/open.h"
#include "delivery/archive_name.h"
#include "delivery/cppmetadir.h"
#include "delivery/in_use.h"
#include "delivery/item_metadata.h"
#include "delivery/original_name.h"
#include "platform/include/process_util.h"
#include "service/main_storage.h"

#include <cstring>
#include <fcntl.h>
#include <optional>
#include <sys/stat.h>

namespace {

constexpr char archive_directory[] = "ARCHIVE";

bool is_set(const char *text) {
    return text != nullptr && *text != '\0';
}

bool is_location_complete(const ItemContext &target) {
    return is_set(target.dir_path()) && is_set(target.file_name()) && target.dir_fd() >= 0;
}

void print_refusal(refusal reason, const char *name, const WatchEntry &entry) {
    if (reason == refusal::running)
        diag("File '%s' is running, not acting\n", entry.target_file.c_str());
    else if (reason == refusal::target_in_use)
        diag("File '%s' is in use, not acting\n", entry.target_file.c_str());
    else
        diag("File source '%s/%s' is in use, not acting\n", entry.watch_path.c_str(), name);
}

unique_fd open_archive(int target_fd) {
    if (mkdirat(target_fd, archive_directory, 0755) != 0 && errno != EEXIST)
        diag("Cannot make ARCHIVE directory, %s\n", strerror(errno));
    unique_fd archive =
        open_without_magic_links(target_fd, archive_directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // It may be a link, made by anybody who can write beside the target.
    if (archive && !is_directory_under_main_path(archive.get())) {
        archive.reset();
        errno = EXDEV;
    }
    if (!archive)
        diag("Cannot access ARCHIVE directory, %s\n", strerror(errno));
    return archive;
}

// An item by its opened directory and its two names there.
struct item_place {
    int dir_fd;
    std::string file;
    std::string metadir; // empty where the file can have no metadata directory
};

item_place place_of(int dir_fd, const std::string &file) {
    return {dir_fd, file, file_to_metadir(file)};
}

// Renames within the opened directories. False for a failure other than that there was nothing to
// move; errno then says why.
bool move(int from_fd, const std::string &from, int to_fd, const std::string &to) {
    return renameat(from_fd, from.c_str(), to_fd, to.c_str()) == 0 || errno == ENOENT;
}

// The same for the item in place. ENOENT also means that the archive directory was removed after it
// was opened; a file that is still in place must then not be replaced.
bool archive_file(const item_place &from, const item_place &to) {
    if (renameat(from.dir_fd, from.file.c_str(), to.dir_fd, to.file.c_str()) == 0)
        return true;
    const int error = errno;
    struct stat status {};
    const bool is_there = error != ENOENT || fstatat(from.dir_fd, from.file.c_str(), &status,
                                                     AT_SYMLINK_NOFOLLOW) == 0;
    errno = error;
    return !is_there;
}

// The new file never replaces what has appeared at its place since the archiving.
bool move_new_file(const item_place &from, const item_place &to) {
    if (renameat2(from.dir_fd, from.file.c_str(), to.dir_fd, to.file.c_str(), RENAME_NOREPLACE) ==
            0 ||
        errno == ENOENT)
        return true;
    // The file system does not know the flag.
    return errno == EINVAL && move(from.dir_fd, from.file, to.dir_fd, to.file);
}

bool move_metadata(const item_place &from, const item_place &to) {
    return from.metadir.empty() || to.metadir.empty() ||
           move(from.dir_fd, from.metadir, to.dir_fd, to.metadir);
}

std::string choose_archive_name(int archive_fd, const ItemContext &target, ItemMetadata &list) {
    const time_t now = time(nullptr);
    std::optional<tm> captured; // a copy: the library's own is overwritten by its next use
    if (const tm *local = localtime(&now))
        captured = *local;
    const archive_base base =
        choose_archive_base(archive_fd, target.file_name(), read_original_name(target, list));
    return base.needs_suffix && captured
               ? base.name + archive_suffix(*captured, monotonic_clock_us())
               : base.name;
}

// Moves the item in place into the archive. False when something that was there could not be moved.
bool archive_item(const item_place &in_place, unique_fd archive, const ItemContext &target) {
    ItemMetadata list;
    const item_place archived =
        place_of(archive.get(), choose_archive_name(archive.get(), target, list));
    const bool file_moved = archive_file(in_place, archived);
    if (!file_moved)
        diag("Cannot move ARCHIVE file into directory, %s\n", strerror(errno));
    const bool metadata_moved = move_metadata(in_place, archived);
    if (!metadata_moved)
        diag("Cannot move ARCHIVE file metadata into directory, %s\n", strerror(errno));
    archive.reset();
    diag("Existing file moved into ARCHIVE directory.\n");
    return file_moved && metadata_moved;
}

// Moves the new item into place. False when the file could not be moved; metadata that could not be
// moved stays behind and is reported.
bool move_new_item(const item_place &arriving, const item_place &in_place) {
    const bool moved = move_new_file(arriving, in_place);
    if (!moved)
        diag("Cannot move NEW file into directory, %s\n", strerror(errno));
    if (!move_metadata(arriving, in_place))
        diag("Cannot move NEW file metadata into directory, %s\n", strerror(errno));
    return moved;
}

} // namespace

refusal why_refused(const char *name, const ItemContext &target, const WatchEntry &entry) {
    if (is_item_running(target))
        return refusal::running;
    if (is_path_in_use(entry.target_file))
        return refusal::target_in_use;
    return is_path_in_use(entry.watch_path + "/" + name) ? refusal::source_in_use : refusal::none;
}

void deliver_file(DIR *watch_dir, const char *name, ItemContext &target, const WatchEntry &entry) {
    target.open_the_file();
    target.open_metadata_dir();
    if (!is_location_complete(target))
        return;
    if (const refusal reason = why_refused(name, target, entry); reason != refusal::none) {
        print_refusal(reason, name, entry);
        return;
    }
    diag("Checking found file '%s' to replace '%s'\n", name, entry.target_file.c_str());
    // All names first: should memory run out, it does so before anything has moved.
    const item_place in_place = place_of(target.dir_fd(), target.file_name());
    const item_place arriving = place_of(dirfd(watch_dir), name);
    unique_fd archive = open_archive(target.dir_fd());
    if (!archive || !archive_item(in_place, std::move(archive), target))
        return;
    if (move_new_item(arriving, in_place))
        record_original_name(target, name);
}
