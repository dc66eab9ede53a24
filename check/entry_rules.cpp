#include "check/entry_rules.h"

#include "delivery/archive_name.h"
#include "delivery/cppmetadir.h"
#include "service/main_storage.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr char main_storage[] = "/mnt/main/";
constexpr char archive_name[] = "ARCHIVE";

// The monotonic clock of a machine that has been up for thirty years.
constexpr uint64_t long_uptime_us = 999999999999999;

// One directory of an entry, and what the lines call it.
struct role {
    std::string name;
    const directory_facts &facts;
};

bool is_absolute(const std::string &path) {
    return !path.empty() && path[0] == '/';
}

// A path that may come with the main storage, which is not there at present.
bool is_awaited(const std::string &path) {
    return main_path.empty() && path.compare(0, strlen(main_storage), main_storage) == 0;
}

void find_unwritable(const std::string &about, const role &directory, findings &list) {
    if (directory.facts.rename_error != 0)
        add_error(list, about + "cannot rename in " + directory.name + ", " +
                            strerror(directory.facts.rename_error));
}

// Will the service open the directory and take it? Reports why not.
bool find_unusable(const std::string &about, const role &directory, const std::string &path,
                   findings &list) {
    if (!is_absolute(path))
        add_warning(list, about + directory.name + " depends on the working directory");
    if (const int error = directory.facts.open_error; error != 0) {
        if (!is_awaited(path))
            add_error(list, about + "cannot open " + directory.name + ", " + strerror(error));
        return false;
    }
    if (!main_path.empty() && !is_under_main_path(directory.facts.path)) {
        add_error(list, about + directory.name + " is " + in_quotes(directory.facts.path) +
                            ", not below the main storage " + in_quotes(main_path));
        return false;
    }
    find_unwritable(about, directory, list);
    return true;
}

void find_apart(const std::string &about, const role &from, const role &to, const char *effect,
                findings &list) {
    const bool two_systems = from.facts.device != to.facts.device;
    if (two_systems || from.facts.mount != to.facts.mount)
        add_error(list, about + from.name + " and " + to.name + " are on two " +
                            (two_systems ? "file systems" : "mounts") + ", " + effect + ", " +
                            strerror(EXDEV));
}

void find_own_folder(const std::string &about, const WatchEntry &entry, const entry_facts &facts,
                     findings &list) {
    if (is_same_directory(facts.watch, facts.target) && entry.matches(facts.target_name))
        add_error(list, about + "the watch folder is that of the target " +
                            in_quotes(facts.target_name) +
                            ", which a pattern matches: each check would archive it");
    if (is_same_directory(facts.watch, facts.archive))
        add_error(list, about + "the watch folder is the target's ARCHIVE directory, what is "
                                "archived there would be delivered again");
}

void find_bad_name(const std::string &about, const entry_facts &facts, findings &list) {
    const std::string &name = facts.target_name;
    const size_t longest = facts.target.longest_name;
    const std::string archived = name + archive_suffix({}, long_uptime_us);
    if (name == archive_name)
        add_error(list, about + "the target file has the name of the ARCHIVE directory");
    else if (name.size() > longest)
        add_error(list, about + "the target's name is too long, " + strerror(ENAMETOOLONG));
    else if (archived.size() > longest)
        add_warning(list, about + "the target's name leaves no room for an archive suffix of " +
                              std::to_string(archived.size() - name.size()) + " bytes, " +
                              strerror(ENAMETOOLONG));
    else if (file_to_metadir(archived).empty())
        add_warning(list, about + "the target's name with an archive suffix leaves no room for a "
                                  "metadata directory");
}

void find_odd_target(const std::string &about, const entry_facts &facts, findings &list) {
    const mode_t mode = facts.target_mode;
    if (mode != 0 && !S_ISREG(mode) && facts.target_name != archive_name)
        add_warning(list, about + "the target is " +
                              (S_ISDIR(mode)   ? "a directory"
                               : S_ISLNK(mode) ? "a symbolic link"
                                               : "no regular file") +
                              ", the first delivery would archive it");
}

// What one entry puts down, another may take up as if somebody had dropped it there.
void find_chain(const known_entry &taker, const known_entry &giver, findings &list) {
    const std::string about = about_entry(taker.entry->name);
    if (is_same_directory(taker.facts.watch, giver.facts.target) &&
        taker.entry->matches(giver.facts.target_name))
        add_warning(list, about + "takes the target of entry " + in_quotes(giver.entry->name) +
                              " for a new file, its pattern matches");
    if (is_same_directory(taker.facts.watch, giver.facts.archive))
        add_warning(list, about + "takes what entry " + in_quotes(giver.entry->name) +
                              " archives for new files");
}

} // namespace

findings entry_findings(const WatchEntry &entry, const entry_facts &facts) {
    findings list;
    const std::string about = about_entry(entry.name);
    const role watch{"watch path " + in_quotes(entry.watch_path), facts.watch};
    const role target{"target directory " + in_quotes(facts.target_directory), facts.target};
    const role archive{"ARCHIVE directory " + in_quotes(facts.target_directory + "/ARCHIVE"),
                       facts.archive};
    const bool watch_usable = find_unusable(about, watch, entry.watch_path, list);
    if (facts.target_name.empty()) {
        add_error(list,
                  about + "target file " + in_quotes(entry.target_file) + " has no file name");
        return list;
    }
    if (!find_unusable(about, target, facts.target_directory, list))
        return list;
    if (facts.archive.open_error == 0) {
        find_unwritable(about, archive, list);
        find_apart(about, target, archive, "the target cannot be archived", list);
    } else if (facts.archive.open_error != ENOENT) {
        add_error(list, about + "cannot open " + archive.name + ", " +
                            strerror(facts.archive.open_error));
    }
    if (watch_usable)
        find_apart(about, watch, target, "the target would be archived and not replaced", list);
    find_own_folder(about, entry, facts, list);
    find_bad_name(about, facts, list);
    find_odd_target(about, facts, list);
    return list;
}

findings pair_findings(const known_entry &earlier, const known_entry &later) {
    findings list;
    const WatchEntry &entry = *later.entry;
    const std::string about = about_entry(entry.name);
    const std::string shared = " is that of entry " + in_quotes(earlier.entry->name) + " too";
    const bool same_text = entry.target_file == earlier.entry->target_file;
    const bool same_place = is_same_directory(later.facts.target, earlier.facts.target) &&
                            later.facts.target_name == earlier.facts.target_name;
    if (same_text || same_place)
        add_warning(list, about + "target file " + in_quotes(entry.target_file) + shared);
    if (entry.watch_path == earlier.entry->watch_path ||
        is_same_directory(later.facts.watch, earlier.facts.watch))
        add_warning(list, about + "watch path " + in_quotes(entry.watch_path) + shared);
    find_chain(later, earlier, list);
    find_chain(earlier, later, list);
    return list;
}
