#include "check/dry_run.h"

#include "base/diagnostics.h"
#include "base/handles.h"
#include "delivery/archive_name.h"
#include "delivery/cppmetadir.h"
#include "delivery/deliver_file.h"
#include "delivery/in_use.h"
#include "delivery/original_name.h"
#include "platform/include/process_util.h"
#include "platform/include/procfs.h"
#include "watch/folder_scan.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <tuple>

namespace {

using std::string;

// What earlier entries of the pass would change: for a name in a directory, the original name of
// the item put there, or "" where one is moved away.
using place = std::tuple<dev_t, ino_t, string>;
using changed_places = std::map<place, string>;

// A directory that names are moved into and out of. A descriptor below 0: it is yet to be made.
struct folder {
    int fd;
    const directory_facts &facts;
};

place place_in(const folder &where, const string &name) {
    return {where.facts.device, where.facts.inode, name};
}

bool is_there(const folder &where, const string &name) {
    struct stat status {};
    return fstatat(where.fd, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
}

// The files that may be delivered, the first in front.
std::vector<string> find_waiting(DIR *watch_dir, const known_entry &known,
                                 const changed_places &changes) {
    const folder watch{dirfd(watch_dir), known.watch};
    std::vector<string> names;
    while (const char *name = next_candidate(watch_dir, *known.entry)) {
        const auto change = changes.find(place_in(watch, name));
        if (change == changes.end() || !change->second.empty())
            names.emplace_back(name);
    }
    for (const auto &[where, original_name] : changes) {
        const string &name = std::get<string>(where);
        if (where == place_in(watch, name) && !original_name.empty() && name[0] != '.' &&
            !is_there(watch, name) && known.entry->matches(name))
            names.push_back(name);
    }
    return names;
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

string refusal_text(refusal reason, const WatchEntry &entry, const ItemContext &target,
                    const string &file) {
    if (reason == refusal::source_in_use)
        return use_of("'" + file + "'", entry.watch_path + "/" + file);
    if (reason == refusal::target_in_use)
        return use_of("the item in place", entry.target_file);
    const string socket = read_marker(target).value_or("");
    const string running = "waits: the item in place is running, its marker ";
    return socket.empty() ? running + "is a file"
                          : running + "leads to '" + socket + "', served by " +
                                process_text(get_socket_server_pid(socket.c_str(), 0));
}

// The errno with which a rename would fail when nothing stands under the new name: ENOENT when
// there is nothing to move, 0 when it would succeed.
int move_error(const folder &from, bool has_item, const folder &to, const string &new_name) {
    if (from.facts.device != to.facts.device || from.facts.mount != to.facts.mount)
        return EXDEV;
    if (!has_item)
        return from.facts.rename_error == EROFS ? EROFS : ENOENT;
    if (new_name.size() > NAME_MAX)
        return ENAMETOOLONG;
    return from.facts.rename_error != 0 ? from.facts.rename_error : to.facts.rename_error;
}

// The same for the metadata directories of two names of a file, and for what may stand there.
int metadata_error(const folder &from, const string &name, const folder &to, const string &new_name,
                   bool is_free) {
    const string old_dir = file_to_metadir(name);
    const string new_dir = file_to_metadir(new_name);
    if (old_dir.empty() || new_dir.empty())
        return ENOENT;
    const int code = move_error(from, is_there(from, old_dir), to, new_dir);
    std::error_code failure;
    const bool is_replaceable = is_free || !is_there(to, new_dir) ||
                                std::filesystem::is_empty(to.facts.path + "/" + new_dir, failure);
    return code == 0 && !is_replaceable ? ENOTEMPTY : code;
}

bool is_failure(int code) {
    return code != 0 && code != ENOENT;
}

string failure_text(const string &text, int code) {
    return "stuck: " + text + ", " + strerror(code);
}

// Takes the four moves of a delivery one by one, and notes what they change.
string delivery_text(const known_entry &known, const folder &watch, const ItemContext &target,
                     const string &file, changed_places &changes) {
    const string own = target.file_name();
    const folder in_place{target.dir_fd(), known.target};
    const unique_fd archive_fd(openat(in_place.fd, "ARCHIVE", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool is_made = known.archive.open_error == ENOENT;
    const folder archive{archive_fd.get(), is_made ? in_place.facts : known.archive};
    int code = is_made ? in_place.facts.rename_error : archive.facts.open_error;
    if (code != 0)
        return failure_text(is_made ? "cannot make the ARCHIVE directory"
                                    : "cannot open the ARCHIVE directory",
                            code);

    const auto change = changes.find(place_in(in_place, own));
    const bool is_new = change != changes.end();
    const bool has_item = is_new ? !change->second.empty() : is_there(in_place, own);
    ItemMetadata list;
    list.load_from_file(target, false);
    bool has_slash = false;
    const string original_name = is_new ? change->second : original_name_in(list, has_slash);
    archive_base base = choose_archive_base(archive.fd, own, original_name);
    // Where ARCHIVE is yet to be made nothing was looked up; these count as taken there too.
    base.needs_suffix |= base.name == "." || base.name == ".." || base.name.size() > NAME_MAX ||
                         changes.count(place_in(in_place, "ARCHIVE/" + base.name)) > 0;
    const string suffix = archive_suffix({}, monotonic_clock_us());
    const string archive_name = base.name + (base.needs_suffix ? suffix : "");
    const string names =
        " '" + own + "' as '" + base.name + (base.needs_suffix ? " [ARCHIVE <time>]'" : "'");
    code = own == "ARCHIVE" ? EINVAL : move_error(in_place, has_item, archive, archive_name);
    if (is_failure(code))
        return failure_text("cannot archive" + names, code);

    if (has_item)
        changes[place_in(in_place, "ARCHIVE/" + base.name)] = own;
    changes[place_in(in_place, own)] = "";
    code = metadata_error(in_place, own, archive, archive_name, false);
    const place metadata = place_in(in_place, "ARCHIVE/" + file_to_metadir(archive_name));
    if (code == 0 && !changes.emplace(metadata, "").second)
        code = ENOTEMPTY; // that of an entry before
    const bool moves_metadata = code == 0;
    const string archived = has_item         ? "archive" + names
                            : moves_metadata ? "archive the metadata of" + names
                                             : "";
    const string then = archived.empty() ? "would fail to " : "would " + archived + " and fail to ";
    if (is_failure(code))
        return failure_text(then + "archive the metadata", code);
    const bool is_itself = place_in(watch, file) == place_in(in_place, own);
    code = move_error(watch, !is_itself, in_place, own);
    if (code != 0)
        return failure_text(then + "deliver '" + file + "'", code);
    changes[place_in(watch, file)] = "";
    changes[place_in(in_place, own)] = file;
    code = metadata_error(watch, file, in_place, own, moves_metadata);
    return "would deliver '" + file + (is_failure(code) ? "' without its metadata" : "'") +
           (archived.empty() ? "" : ", and " + archived);
}

string outcome(const known_entry &known, changed_places &changes) {
    const WatchEntry &entry = *known.entry;
    const unique_dir watch_dir(opendir(entry.watch_path.c_str()));
    if (watch_dir == nullptr)
        return failure_text("cannot open watch path '" + entry.watch_path + "'", errno);
    if (const char *reason = why_not_scanned(known.watch.path, known.target.path))
        return string("stuck: watch path or target directory, ") + reason;
    const std::vector<string> files = find_waiting(watch_dir.get(), known, changes);
    if (files.empty())
        return "nothing to deliver";
    ItemContext target;
    locate_target(target, entry);
    target.open_the_file();
    target.open_metadata_dir();
    const refusal reason = why_refused(files[0].c_str(), target, entry);
    const string text = reason != refusal::none
                            ? refusal_text(reason, entry, target, files[0])
                            : delivery_text(known, {dirfd(watch_dir.get()), known.watch}, target,
                                            files[0], changes);
    const size_t behind = files.size() - 1;
    return behind == 0 ? text : text + "; files that wait behind it: " + std::to_string(behind);
}

} // namespace

void announce_pass(const std::vector<known_entry> &entries) {
    changed_places changes;
    for (const known_entry &known : entries)
        diag("Entry '%s': %s\n", known.entry->name.c_str(), outcome(known, changes).c_str());
}
