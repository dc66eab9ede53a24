#include "check/dry_run.h"

#include "base/diagnostics.h"
#include "base/handles.h"
#include "check/entry_rules.h"
#include "delivery/archive_name.h"
#include "delivery/cppmetadir.h"
#include "delivery/deliver_file.h"
#include "delivery/delivery_plan.h"
#include "delivery/in_use.h"
#include "delivery/original_name.h"
#include "platform/include/process_util.h"
#include "platform/include/procfs.h"
#include "watch/cpprealpath.h"
#include "watch/folder_scan.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace {

namespace fs = std::filesystem;
using std::string;

// Control bytes as in C, so that a name makes no second line.
string printable(const string &text) {
    string shown;
    for (const unsigned char c : text) {
        char code[8];
        snprintf(code, sizeof(code), iscntrl(c) != 0 ? "\\%03o" : "%c", c);
        shown += c == '\n' ? "\\n" : code;
    }
    return shown;
}

string process_text(int pid) {
    const string number = std::to_string(pid);
    string name;
    std::getline(std::ifstream("/proc/" + number + "/comm"), name);
    return pid <= 0 ? "a process that was not found" : "process " + number + " (" + name + ")";
}

string use_of(const string &name, const string &path) {
    procfs_path_in_use_info info{};
    procfs_path_in_use(path.c_str(), &info, 1, PROCFS_FIND_HOLDER);
    return "waits: " + name + " is in use by " + process_text(info.pid);
}

string refusal_text(Refusal reason, const WatchEntry &entry, const ItemContext &target,
                    const string &file) {
    if (reason == Refusal::source_in_use)
        return use_of("'" + file + "'", entry.watch_path + "/" + file);
    if (reason == Refusal::target_in_use)
        return use_of("the item in place", entry.target_file);
    const string socket = read_marker(target).value_or("");
    const string running = "waits: the item in place is running, its marker ";
    return socket.empty() ? running + "is a file"
                          : running + "leads to '" + socket + "', served by " +
                                process_text(get_socket_server_pid(socket.c_str(), 0));
}

// The errno with which the kernel would refuse the move, asked for in the kernel's order: 0 when it
// would not, ENOENT when there is nothing to move. A directory that is yet to be made has no
// descriptor. With is_free, what has the new name now has moved away by then.
int why_not_moved(const Move &move, bool is_free) {
    const char *name = move.name.c_str();
    const char *new_name = move.new_name.c_str();
    if (move.name.empty() || move.new_name.empty() || move.from_fd < 0)
        return ENOENT;
    // Nothing is ever renamed to ".", but the mounts are compared before that is refused.
    if (renameat(move.from_fd, name, move.to_fd, ".") != 0 && errno == EXDEV)
        return EXDEV;
    const int from_error = rename_error_of(move.from_fd);
    if (from_error == EROFS)
        return EROFS;
    struct stat item {};
    struct stat other {};
    if (fstatat(move.from_fd, name, &item, AT_SYMLINK_NOFOLLOW) != 0)
        return errno;
    const bool is_directory = S_ISDIR(item.st_mode);
    if (is_directory && fstat(move.to_fd, &other) == 0 && other.st_ino == item.st_ino)
        return EINVAL; // into itself
    const bool is_taken = fstatat(move.to_fd, new_name, &other, AT_SYMLINK_NOFOLLOW) == 0;
    if (move.new_name.size() > NAME_MAX || (!is_taken && errno == ENAMETOOLONG))
        return ENAMETOOLONG;
    if (is_taken && is_free && other.st_ino == item.st_ino && move.name == move.new_name)
        return ENOENT; // it is the item that has moved away
    const int to_error = move.to_fd < 0 ? 0 : rename_error_of(move.to_fd);
    if (from_error != 0 || to_error != 0)
        return from_error != 0 ? from_error : to_error;
    const bool is_replaced = is_taken && !is_free;
    if (is_replaced && is_directory != S_ISDIR(other.st_mode))
        return is_directory ? ENOTDIR : EISDIR;
    // The entry ".." of a directory changes.
    if (is_directory && faccessat(move.from_fd, name, W_OK, AT_EACCESS) != 0)
        return errno;
    std::error_code failure;
    return is_replaced && is_directory &&
                   !fs::is_empty(procfs_fd_realpath(move.to_fd) + "/" + move.new_name, failure)
               ? ENOTEMPTY
               : 0;
}

bool is_failure(int code) {
    return code != 0 && code != ENOENT;
}

string failure_text(const string &text, int code) {
    return "stuck: " + text + ", " + strerror(code);
}

// Takes the four moves one by one.
string plan_text(const DeliveryPlan &plan, const string &archive_name) {
    const string &own = plan.old_file.name;
    const string &file = plan.new_file.name;
    const string names = " '" + own + "' as '" + archive_name + "'";
    const bool finds_itself = own == archive_directory && plan.old_file.to_fd < 0;
    int code = finds_itself ? EINVAL : why_not_moved(plan.old_file, false);
    if (is_failure(code))
        return failure_text("cannot archive" + names, code);
    const bool has_item = code == 0;
    code = why_not_moved(plan.old_metadata, false);
    const bool has_metadata = code == 0;
    const string archived = has_item       ? "archive" + names
                            : has_metadata ? "archive the metadata of" + names
                                           : "";
    const string then = archived.empty() ? "would fail to " : "would " + archived + " and fail to ";
    if (is_failure(code))
        return failure_text(then + "archive the metadata", code);
    code = why_not_moved(plan.new_file, true);
    if (code != 0)
        return failure_text(then + "deliver '" + file + "'", code);
    const bool brings_metadata = !is_failure(why_not_moved(plan.new_metadata, has_metadata));
    return "would deliver '" + file + (brings_metadata ? "'" : "' without its metadata") +
           (archived.empty() ? "" : ", and " + archived);
}

string delivery_text(int watch_fd, const string &file, const ItemContext &target) {
    const string own = target.file_name();
    struct stat status {};
    const bool makes_archive =
        fstatat(target.dir_fd(), archive_directory, &status, AT_SYMLINK_NOFOLLOW) != 0;
    const unique_fd archive = makes_archive ? unique_fd(-1) : open_archive(target.dir_fd());
    if (!makes_archive && !archive)
        return failure_text("cannot open the ARCHIVE directory", errno);
    const int error = makes_archive && target.dir_fd() >= 0 ? rename_error_of(target.dir_fd()) : 0;
    if (error != 0)
        return failure_text("cannot make the ARCHIVE directory", error);
    ItemMetadata list;
    list.load_from_file(target, false);
    bool has_slash = false;
    ArchiveBase base = choose_archive_base(archive.get(), own, original_name_in(list, has_slash));
    // These are taken in an empty directory too.
    base.needs_suffix |= base.name == "." || base.name == ".." || base.name.size() > NAME_MAX;
    const string suffix = base.needs_suffix ? archive_suffix({}, monotonic_clock_us()) : "";
    const string text = plan_text(
        plan_delivery(watch_fd, file, target.dir_fd(), own, archive.get(), base.name + suffix),
        base.name + (base.needs_suffix ? " [ARCHIVE <time>]" : ""));
    struct statvfs system {};
    const bool has_room = fstatvfs(watch_fd, &system) != 0 || system.f_bavail > 0;
    return has_room ? text : text + "; the storage is full, which can make steps of it fail";
}

// Sets acts when the entry would change something.
string outcome(const WatchEntry &entry, const string &missing_play, bool &acts) {
    const unique_dir watch_dir(opendir(entry.watch_path.c_str()));
    if (watch_dir == nullptr)
        return failure_text("cannot open watch path '" + entry.watch_path + "'", errno);
    ItemContext target;
    target.set_file_location(entry.target_file);
    const bool is_open = target.open_directory();
    const string target_path = is_open ? procfs_fd_realpath(target.dir_fd()) : missing_play;
    if (const char *reason =
            why_not_scanned(procfs_fd_realpath(dirfd(watch_dir.get())), target_path))
        return string("stuck: watch path or target directory, ") + reason;
    WatchEntry any_name;
    any_name.patterns.emplace_back("");
    std::vector<string> files;
    std::vector<string> passed_over;
    while (const char *name = next_candidate(watch_dir.get(), any_name))
        (entry.matches(name) ? files : passed_over).emplace_back(name);
    if (files.empty())
        return "nothing to deliver" +
               (passed_over.empty()
                    ? ""
                    : "; " + std::to_string(passed_over.size()) +
                          " files that no pattern matches, such as '" + passed_over[0] + "'");
    target.open_the_file();
    target.open_metadata_dir();
    const Refusal reason = why_refused(files[0].c_str(), target, entry);
    acts = reason == Refusal::none;
    const string text = acts ? delivery_text(dirfd(watch_dir.get()), files[0], target)
                             : refusal_text(reason, entry, target, files[0]);
    const size_t behind = files.size() - 1;
    return behind == 0 ? text : text + "; files that wait behind it: " + std::to_string(behind);
}

// The last entry before this one on whose folders it depends: they are those of this one, or hold
// one of them, which can be renamed with what it is in. Empty when there is none.
string find_earlier(const std::vector<fs::path> &folders, const std::map<string, string> &changed) {
    for (const fs::path &folder : folders)
        for (fs::path path = folder; path.has_relative_path(); path = path.parent_path())
            if (const auto found = changed.find(path); found != changed.end())
                return found->second;
    return "";
}

} // namespace

void announce_pass(const string &missing_play) {
    std::map<string, string>
        changed; // by the real path of a folder, the last entry that acts there
    for (const auto &[name, entry] : configuration) {
        std::error_code failure;
        const fs::path target = fs::path(entry.target_file).parent_path();
        std::vector<fs::path> folders = {entry.watch_path, target, target / archive_directory};
        for (fs::path &folder : folders)
            folder = fs::weakly_canonical(folder, failure);
        const string earlier = find_earlier(folders, changed);
        bool acts = !earlier.empty();
        const string text =
            acts ? "depends on entry '" + earlier + "'" : outcome(entry, missing_play, acts);
        diag("Entry '%s': %s\n", printable(name).c_str(), printable(text).c_str());
        for (const fs::path &folder : folders)
            if (acts)
                changed[folder] = name;
    }
}
