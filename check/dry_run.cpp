#include "check/dry_run.h"

#include "base/diagnostics.h"
#include "base/handles.h"
#include "delivery/archive_name.h"
#include "delivery/cppmetadir.h"
#include "delivery/deliver_file.h"
#include "delivery/in_use.h"
#include "delivery/item_metadata.h"
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

// What the entries before would have changed: for a name in a directory the original name of the
// item that they put there, "" where they take one away.
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

// The first file that may be delivered, and what waits behind it.
struct waiting {
    string first;
    string behind;
};

waiting find_waiting(DIR *watch_dir, const known_entry &known, const changed_places &changes) {
    const folder watch{dirfd(watch_dir), known.facts.watch};
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
    if (names.empty())
        return {};
    const size_t count = names.size() - 1;
    return {names[0], count == 0 ? "" : "; files that wait behind it: " + std::to_string(count)};
}

string process_text(int pid) {
    string name;
    std::getline(std::ifstream("/proc/" + std::to_string(pid) + "/comm") >> std::ws, name);
    return pid <= 0 ? "a process that was not found"
                    : "process " + std::to_string(pid) + " (" + name + ")";
}

string holder_of(const string &path) {
    procfs_path_in_use_info info{};
    procfs_path_in_use(path.c_str(), &info, 1, 1);
    return process_text(info.pid);
}

void announce_refusal(refusal reason, const WatchEntry &entry, const ItemContext &target,
                      const waiting &files) {
    const char *name = entry.name.c_str();
    const char *behind = files.behind.c_str();
    if (reason == refusal::source_in_use) {
        diag("Entry '%s': waits: '%s' is in use by %s%s\n", name, files.first.c_str(),
             holder_of(entry.watch_path + "/" + files.first).c_str(), behind);
    } else if (reason == refusal::target_in_use) {
        diag("Entry '%s': waits: the item in place, '%s', is in use by %s%s\n", name,
             target.file_name(), holder_of(entry.target_file).c_str(), behind);
    } else if (const string socket = read_marker(target).value_or(""); socket.empty()) {
        diag("Entry '%s': waits: the item in place is running, its marker is a file%s\n", name,
             behind);
    } else {
        diag("Entry '%s': waits: the item in place is running, its marker leads to '%s', served by "
             "%s%s\n",
             name, socket.c_str(), process_text(get_socket_server_pid(socket.c_str(), 0)).c_str(),
             behind);
    }
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

void announce_delivery(const known_entry &known, const folder &watch, const ItemContext &target,
                       const waiting &files, changed_places &changes) {
    const char *name = known.entry->name.c_str();
    const char *behind = files.behind.c_str();
    const string own = target.file_name() == nullptr ? "" : target.file_name();
    const folder in_place{target.dir_fd(), known.facts.target};
    const unique_fd archive_fd(openat(in_place.fd, "ARCHIVE", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool is_made = known.facts.archive.open_error == ENOENT;
    const folder archive{archive_fd.get(), is_made ? known.facts.target : known.facts.archive};
    int code = is_made ? known.facts.target.rename_error : known.facts.archive.open_error;
    if (code != 0) {
        diag("Entry '%s': stuck: cannot %s the ARCHIVE directory, %s%s\n", name,
             is_made ? "make" : "open", strerror(code), behind);
        return;
    }
    const auto change = changes.find(place_in(in_place, own));
    const bool is_changed = change != changes.end();
    const bool has_item = is_changed ? !change->second.empty() : is_there(in_place, own);
    ItemMetadata list;
    list.load_from_file(target, false);
    bool has_slash = false;
    archive_base base = choose_archive_base(
        archive.fd, own, is_changed ? change->second : original_name_in(list, has_slash));
    base.needs_suffix |= changes.count(place_in(in_place, "ARCHIVE/" + base.name)) > 0;
    const string archive_name =
        base.name + (base.needs_suffix ? archive_suffix({}, monotonic_clock_us()) : "");
    const string shown = base.name + (base.needs_suffix ? " [ARCHIVE <time>]" : "");
    code = own == "ARCHIVE" ? EINVAL : move_error(in_place, has_item, archive, archive_name);
    if (code != 0 && code != ENOENT) {
        diag("Entry '%s': stuck: cannot archive '%s' as '%s', %s%s\n", name, own.c_str(),
             shown.c_str(), strerror(code), behind);
        return;
    }
    code = metadata_error(in_place, own, archive, archive_name, false);
    const bool moves_metadata = code == 0;
    string archived;
    if (has_item || moves_metadata)
        archived =
            (has_item ? "archive '" : "archive the metadata of '") + own + "' as '" + shown + "'";
    changes[place_in(in_place, "ARCHIVE/" + base.name)] = own;
    changes[place_in(in_place, own)] = "";
    if (code != 0 && code != ENOENT) {
        diag("Entry '%s': stuck: would %s%sfail to archive the metadata, %s%s\n", name,
             archived.c_str(), archived.empty() ? "" : " and then ", strerror(code), behind);
        return;
    }
    const bool is_own = place_in(watch, files.first) == place_in(in_place, own);
    code = move_error(watch, !is_own, in_place, own);
    if (code != 0) {
        diag("Entry '%s': stuck: would %s%sfail to deliver '%s', %s%s\n", name, archived.c_str(),
             archived.empty() ? "" : " and then ", files.first.c_str(), strerror(code), behind);
        return;
    }
    code = metadata_error(watch, files.first, in_place, own, moves_metadata);
    diag("Entry '%s': would deliver '%s'%s%s%s%s\n", name, files.first.c_str(),
         code == 0 || code == ENOENT ? "" : " without its metadata",
         archived.empty() ? "" : ", and ", archived.c_str(), behind);
    changes[place_in(watch, files.first)] = "";
    changes[place_in(in_place, own)] = files.first;
}

void announce(const known_entry &known, changed_places &changes) {
    const WatchEntry &entry = *known.entry;
    const char *name = entry.name.c_str();
    const unique_dir watch_dir(opendir(entry.watch_path.c_str()));
    if (watch_dir == nullptr) {
        diag("Entry '%s': stuck: cannot open watch path '%s', %s\n", name, entry.watch_path.c_str(),
             strerror(errno));
        return;
    }
    if (const char *reason = why_not_scanned(known.facts.watch.path, known.facts.target.path)) {
        diag("Entry '%s': stuck: watch path or target directory, %s\n", name, reason);
        return;
    }
    const waiting files = find_waiting(watch_dir.get(), known, changes);
    if (files.first.empty()) {
        diag("Entry '%s': nothing to deliver\n", name);
        return;
    }
    ItemContext target;
    locate_target(target, entry);
    target.open_the_file();
    target.open_metadata_dir();
    const refusal reason = why_refused(files.first.c_str(), target, entry);
    if (reason == refusal::none)
        announce_delivery(known, {dirfd(watch_dir.get()), known.facts.watch}, target, files,
                          changes);
    else
        announce_refusal(reason, entry, target, files);
}

} // namespace

void announce_pass(const std::vector<known_entry> &entries) {
    changed_places changes;
    for (const known_entry &known : entries)
        announce(known, changes);
}
