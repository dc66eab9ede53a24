#include "check/entry_rules.h"

#include "base/handles.h"
#include "check/finding.h"
#include "delivery/archive_name.h"
#include "delivery/cppmetadir.h"
#include "delivery/item_context.h"
#include "service/main_storage.h"
#include "watch/cpprealpath.h"

#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/vfs.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr char main_storage[] = "/mnt/main/";

// The monotonic clock of a machine that has been up for thirty years.
constexpr uint64_t long_uptime_us = 999999999999999;

constexpr struct {
    unsigned long type;
    const char *effect;
} remote_systems[] = {
    {FUSE_SUPER_MAGIC, "FUSE: files opened behind the mount are not seen, renames may give EXDEV"},
    {NFS_SUPER_MAGIC, "NFS: files opened elsewhere are not seen, the server may refuse the user"},
    {CIFS_SUPER_MAGIC, "SMB: files opened elsewhere are not seen, a marker is a regular file"},
    {SMB2_SUPER_MAGIC, "SMB: files opened elsewhere are not seen, a marker is a regular file"},
};

void report_refused(const char *entry, const directory_facts &directory, const char *what,
                    int code) {
    static bool was_said = false;
    if (geteuid() == 0 || code != EACCES)
        report(error, entry, "cannot %s %s, %s", what, directory.name.c_str(), strerror(code));
    else if (!std::exchange(was_said, true))
        report(error, nullptr,
               "User %u may not %s '%s' or others: run this as root or as the service's user",
               geteuid(), what, directory.configured.c_str());
}

void find_unwritable(const char *entry, const directory_facts &directory) {
    const int code = directory.rename_error;
    if (code == EOVERFLOW)
        report(warning, entry,
               "user %u is not mapped by the id-mapped mount of %s: if the service is that user, "
               "nothing is delivered, %s",
               geteuid(), directory.name.c_str(), strerror(code));
    else if (code != 0)
        report_refused(entry, directory, "rename in", code);
}

// Will the service open the directory and take it? Reports why not.
bool find_unusable(const char *entry, const directory_facts &directory) {
    const char *name = directory.name.c_str();
    if (directory.configured[0] != '/') {
        report(error, entry, "%s must be absolute: begin it with '/'", name);
        return false;
    }
    if (directory.open_error != 0) {
        // A path may come with the main storage, which is not there at present.
        if (!main_path.empty() ||
            directory.configured.compare(0, strlen(main_storage), main_storage) != 0)
            report_refused(entry, directory, "open", directory.open_error);
        return false;
    }
    if (!main_path.empty() && !is_under_main_path(directory.path)) {
        report(error, entry, "%s is '%s', not below the main storage '%s'", name,
               directory.path.c_str(), main_path.c_str());
        return false;
    }
    find_unwritable(entry, directory);
    for (const auto &[type, effect] : remote_systems)
        if (directory.type == type)
            report(warning, entry, "%s is on %s", name, effect);
    return true;
}

void find_apart(const char *entry, const directory_facts &from, const directory_facts &to,
                const char *effect) {
    if (from.device != to.device || from.mount != to.mount)
        report(error, entry, "%s and %s are on two file systems or mounts, %s, %s",
               from.name.c_str(), to.name.c_str(), effect, strerror(EXDEV));
}

void find_bad_name(const char *entry, const std::string &name) {
    const std::string archived = name + archive_suffix({}, long_uptime_us);
    if (name == "ARCHIVE" || is_metadata_dir_name(name))
        report(error, entry, "the target '%s' has the name of %s, which a delivery would move away",
               name.c_str(), name == "ARCHIVE" ? "the ARCHIVE directory" : "a metadata directory");
    const char *effect =
        name.size() > NAME_MAX              ? "it is never delivered"
        : file_to_metadir(name).empty()     ? "from 247 on it is delivered once and never replaced"
        : archived.size() > NAME_MAX        ? "without a recorded name it is never replaced"
        : file_to_metadir(archived).empty() ? "in ARCHIVE it may be without its metadata"
                                            : nullptr;
    if (effect != nullptr)
        report(file_to_metadir(name).empty() ? error : warning, entry,
               "the target's name has %zu bytes, %s", name.size(), effect);
}

// What one entry puts down, another may take up as if somebody had dropped it there.
void find_chain(const known_entry &taker, const known_entry &giver) {
    const severity level = &taker == &giver ? error : warning;
    const char *name = taker.entry->name.c_str();
    const char *from = giver.entry->name.c_str();
    if (is_same_directory(taker.watch, giver.target) && taker.entry->matches(giver.target_name))
        report(level, name, "takes the target '%s' of entry '%s' for a new file, a pattern matches",
               giver.target_name.c_str(), from);
    if (is_same_directory(taker.watch, giver.archive))
        report(level, name, "takes what entry '%s' archives for new files", from);
}

} // namespace

// Asks with the effective user and its capabilities; a read-only file system is an answer too.
int rename_error_of(int fd) {
    // A hard link to a directory is always refused. An id-mapped mount that does not map the user
    // gives EOVERFLOW before that.
    if (linkat(fd, ".", fd, ".no second name", 0) != 0 && errno == EOVERFLOW)
        return EOVERFLOW;
    return faccessat(fd, ".", W_OK | X_OK, AT_EACCESS) == 0 ? 0 : errno;
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
    facts.rename_error = rename_error_of(fd.get());
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

void judge_entry(const known_entry &known) {
    const char *entry = known.entry->name.c_str();
    const bool watch_usable = find_unusable(entry, known.watch);
    if (known.target_name.empty()) {
        report(error, entry, "target file '%s' has no file name", known.entry->target_file.c_str());
        return;
    }
    if (!find_unusable(entry, known.target))
        return;
    if (known.archive.open_error == 0) {
        find_unwritable(entry, known.archive);
        find_apart(entry, known.target, known.archive, "the target cannot be archived");
    } else if (known.archive.open_error != ENOENT) {
        report_refused(entry, known.archive, "open", known.archive.open_error);
    }
    if (watch_usable)
        find_apart(entry, known.watch, known.target,
                   "the target would be archived and not replaced");
    find_chain(known, known);
    find_bad_name(entry, known.target_name);
    if (known.target_mode != 0 && !S_ISREG(known.target_mode) && known.target_name != "ARCHIVE")
        report(warning, entry,
               "the target is no regular file, the first delivery would archive it");
}

void judge_pair(const known_entry &earlier, const known_entry &later) {
    const WatchEntry &entry = *later.entry;
    const char *name = entry.name.c_str();
    const char *other = earlier.entry->name.c_str();
    const bool same_place =
        is_same_directory(later.target, earlier.target) && later.target_name == earlier.target_name;
    if (same_place || entry.target_file == earlier.entry->target_file)
        report(warning, name, "target file '%s' is that of entry '%s' too",
               entry.target_file.c_str(), other);
    if (entry.watch_path == earlier.entry->watch_path ||
        is_same_directory(later.watch, earlier.watch))
        report(warning, name, "watch path '%s' is that of entry '%s' too", entry.watch_path.c_str(),
               other);
    find_chain(later, earlier);
    find_chain(earlier, later);
}
