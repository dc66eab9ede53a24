#include "check/entry_rules.h"

#include "check/finding.h"
#include "delivery/archive_name.h"
#include "delivery/cppmetadir.h"
#include "service/main_storage.h"

#include <climits>
#include <cstring>
#include <linux/magic.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr char main_storage[] = "/mnt/main/";

// The monotonic clock of a machine that has been up for thirty years.
constexpr uint64_t long_uptime_us = 999999999999999;

// One directory of an entry, and what the lines call it.
struct role {
    const char *entry;
    std::string path; // as configured
    std::string name;
    const directory_facts &facts;
};

role role_of(const known_entry &known, const char *name, const std::string &path,
             const directory_facts &facts) {
    return {known.entry->name.c_str(), path, name + (" '" + path + "'"), facts};
}

constexpr struct {
    unsigned long type;
    const char *effect;
} remote_systems[] = {
    {FUSE_SUPER_MAGIC, "FUSE: files opened behind the mount are not seen, renames may give EXDEV"},
    {NFS_SUPER_MAGIC, "NFS: files opened elsewhere are not seen, the server may refuse the user"},
    {CIFS_SUPER_MAGIC, "SMB: files opened elsewhere are not seen, a marker is a regular file"},
    {SMB2_SUPER_MAGIC, "SMB: files opened elsewhere are not seen, a marker is a regular file"},
};

void report_refused(const role &directory, const char *what, int code) {
    static bool was_said = false;
    if (!is_ordinary_user() || (code != EACCES && code != EPERM))
        report(error, directory.entry, "cannot %s %s, %s", what, directory.name.c_str(),
               strerror(code));
    else if (!std::exchange(was_said, true))
        report(error, nullptr,
               "User %u may not %s '%s' or others: run this as root or as the service's user",
               geteuid(), what, directory.path.c_str());
}

void find_unwritable(const role &directory) {
    const int code = directory.facts.rename_error;
    if (code == EOVERFLOW)
        report(warning, directory.entry,
               "user %u is not mapped by the id-mapped mount of %s: if the service is that user, "
               "nothing is delivered, %s",
               geteuid(), directory.name.c_str(), strerror(code));
    else if (code != 0)
        report_refused(directory, "rename in", code);
}

// Will the service open the directory and take it? Reports why not.
bool find_unusable(const role &directory) {
    const directory_facts &facts = directory.facts;
    const char *name = directory.name.c_str();
    if (directory.path[0] != '/') {
        report(error, directory.entry, "%s must be absolute: begin it with '/'", name);
        return false;
    }
    if (facts.open_error != 0) {
        // A path may come with the main storage, which is not there at present.
        if (!main_path.empty() ||
            directory.path.compare(0, strlen(main_storage), main_storage) != 0)
            report_refused(directory, "open", facts.open_error);
        return false;
    }
    if (!main_path.empty() && !is_under_main_path(facts.path)) {
        report(error, directory.entry, "%s is '%s', not below the main storage '%s'", name,
               facts.path.c_str(), main_path.c_str());
        return false;
    }
    find_unwritable(directory);
    for (const auto &[type, effect] : remote_systems)
        if (facts.type == type)
            report(warning, directory.entry, "%s is on %s", name, effect);
    return true;
}

void find_apart(const role &from, const role &to, const char *effect) {
    if (from.facts.device != to.facts.device || from.facts.mount != to.facts.mount)
        report(error, from.entry, "%s and %s are on two file systems or mounts, %s, %s",
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
    if (is_same_directory(taker.facts.watch, giver.facts.target) &&
        taker.entry->matches(giver.facts.target_name))
        report(level, name, "takes the target '%s' of entry '%s' for a new file, a pattern matches",
               giver.facts.target_name.c_str(), from);
    if (is_same_directory(taker.facts.watch, giver.facts.archive))
        report(level, name, "takes what entry '%s' archives for new files", from);
}

} // namespace

void judge_entry(const known_entry &known) {
    const auto &[entry, facts] = known;
    const char *name = entry->name.c_str();
    const role watch = role_of(known, "watch path", entry->watch_path, facts.watch);
    const role target = role_of(known, "target directory", facts.target_directory, facts.target);
    const role archive =
        role_of(known, "ARCHIVE directory", facts.target_directory + "/ARCHIVE", facts.archive);
    const bool watch_usable = find_unusable(watch);
    if (facts.target_name.empty()) {
        report(error, name, "target file '%s' has no file name", entry->target_file.c_str());
        return;
    }
    if (!find_unusable(target))
        return;
    if (facts.archive.open_error == 0) {
        find_unwritable(archive);
        find_apart(target, archive, "the target cannot be archived");
    } else if (facts.archive.open_error != ENOENT) {
        report_refused(archive, "open", facts.archive.open_error);
    }
    if (watch_usable)
        find_apart(watch, target, "the target would be archived and not replaced");
    find_chain(known, known);
    find_bad_name(name, facts.target_name);
    if (facts.target_mode != 0 && !S_ISREG(facts.target_mode) && facts.target_name != "ARCHIVE")
        report(warning, name, "the target is no regular file, the first delivery would archive it");
}

void judge_pair(const known_entry &earlier, const known_entry &later) {
    const WatchEntry &entry = *later.entry;
    const char *name = entry.name.c_str();
    const char *other = earlier.entry->name.c_str();
    const bool same_place = is_same_directory(later.facts.target, earlier.facts.target) &&
                            later.facts.target_name == earlier.facts.target_name;
    if (same_place || entry.target_file == earlier.entry->target_file)
        report(warning, name, "target file '%s' is that of entry '%s' too",
               entry.target_file.c_str(), other);
    if (entry.watch_path == earlier.entry->watch_path ||
        is_same_directory(later.facts.watch, earlier.facts.watch))
        report(warning, name, "watch path '%s' is that of entry '%s' too", entry.watch_path.c_str(),
               other);
    find_chain(later, earlier);
    find_chain(earlier, later);
}
