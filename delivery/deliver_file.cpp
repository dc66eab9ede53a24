#include "delivery/deliver_file.h"

#include "base/diagnostics.h"
#include "base/open.h"
#include "delivery/archive_name.h"
#include "delivery/delivery_plan.h"
#include "delivery/in_use.h"
#include "delivery/item_metadata.h"
#include "delivery/original_name.h"
#include "platform/include/process_util.h"
#include "service/main_storage.h"

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

bool is_location_complete(const ItemContext &target) {
    const char *directory = target.dir_path();
    const char *file = target.file_name();
    return directory != nullptr && *directory != '\0' && file != nullptr && *file != '\0' &&
           target.dir_fd() >= 0;
}

// Reports the reason.
bool is_refused(const char *name, const ItemContext &target, const WatchEntry &entry) {
    const Refusal reason = why_refused(name, target, entry);
    if (reason == Refusal::running)
        diag("File '%s' is running, not acting\n", entry.target_file.c_str());
    else if (reason == Refusal::target_in_use)
        diag("File '%s' is in use, not acting\n", entry.target_file.c_str());
    else if (reason == Refusal::source_in_use)
        diag("File source '%s/%s' is in use, not acting\n", entry.watch_path.c_str(), name);
    return reason != Refusal::none;
}

UniqueFd make_archive(int target_fd) {
    if (mkdirat(target_fd, archive_directory, 0755) != 0 && errno != EEXIST)
        diag("Cannot make ARCHIVE directory, %s\n", strerror(errno));
    UniqueFd archive = open_archive(target_fd);
    if (!archive)
        diag("Cannot access ARCHIVE directory, %s\n", strerror(errno));
    return archive;
}

std::string choose_archive_name(int archive_fd, const ItemContext &target) {
    const time_t now = time(nullptr);
    const tm *local = localtime(&now);
    const tm captured = local == nullptr ? tm{} : *local; // a copy: the library reuses its own
    ItemMetadata list;
    const ArchiveBase base =
        choose_archive_base(archive_fd, target.file_name(), read_original_name(target, list));
    return base.needs_suffix && local != nullptr
               ? base.name + archive_suffix(captured, monotonic_clock_us())
               : base.name;
}

bool is_still_there(const Move &move) {
    struct stat status {};
    return fstatat(move.from_fd, move.name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 ||
           errno != ENOENT;
}

bool rename_item(const Move &move) {
    const char *name = move.name.c_str();
    const char *new_name = move.new_name.c_str();
    if (move.rule == MoveRule::never_replace) {
        if (renameat2(move.from_fd, name, move.to_fd, new_name, RENAME_NOREPLACE) == 0)
            return true;
        if (errno != EINVAL) // the file system does not know the flag
            return false;
    }
    return renameat(move.from_fd, name, move.to_fd, new_name) == 0;
}

// Reports a failure. True also where there was nothing to move.
bool carry_out(const Move &move) {
    if (move.name.empty() || move.new_name.empty() || rename_item(move))
        return true;
    const int error = errno;
    if (error == ENOENT && (move.rule != MoveRule::must_be_gone || !is_still_there(move)))
        return true;
    diag("%s, %s\n", move.failure, strerror(error));
    return false;
}

} // namespace

Refusal why_refused(const char *name, const ItemContext &target, const WatchEntry &entry) {
    if (is_item_running(target))
        return Refusal::running;
    if (is_path_in_use(entry.target_file))
        return Refusal::target_in_use;
    return is_path_in_use(entry.watch_path + "/" + name) ? Refusal::source_in_use : Refusal::none;
}

UniqueFd open_archive(int target_fd) {
    UniqueFd archive =
        open_without_magic_links(target_fd, archive_directory, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    // It may be a link, made by anybody who can write beside the target.
    if (archive && !is_directory_under_main_path(archive.get())) {
        archive.reset();
        errno = EXDEV;
    }
    return archive;
}

void deliver_file(DIR *watch_dir, const char *name, ItemContext &target, const WatchEntry &entry) {
    target.open_the_file();
    target.open_metadata_dir();
    if (!is_location_complete(target) || is_refused(name, target, entry))
        return;
    diag("Checking found file '%s' to replace '%s'\n", name, entry.target_file.c_str());
    UniqueFd archive = make_archive(target.dir_fd());
    if (!archive)
        return;
    // All names first: should memory run out, it does so before anything has moved.
    const DeliveryPlan plan =
        plan_delivery(dirfd(watch_dir), name, target.dir_fd(), target.file_name(), archive.get(),
                      choose_archive_name(archive.get(), target));
    const bool file_archived = carry_out(plan.old_file);
    const bool metadata_archived = carry_out(plan.old_metadata);
    archive.reset();
    diag("Existing file moved into ARCHIVE directory.\n");
    if (!file_archived || !metadata_archived)
        return;
    const bool is_delivered = carry_out(plan.new_file);
    if (!is_delivered && errno == EEXIST)
        return; // the metadata stays with its file
    carry_out(plan.new_metadata);
    if (is_delivered)
        record_original_name(target, name);
}
