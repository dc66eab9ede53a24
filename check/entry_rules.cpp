#include "check/entry_rules.h"

#include "base/open.h"
#include "check/finding.h"
#include "delivery/cppmetadir.h"
#include "delivery/deliver_file.h"
#include "delivery/delivery_plan.h"
#include "service/main_storage.h"
#include "watch/cpprealpath.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <linux/magic.h>
#include <sys/vfs.h>

namespace {

namespace fs = std::filesystem;
using std::string;

// Others can make a link at what is planted.
DirectoryFacts collect_directory_facts(const char *what, const string &path, bool is_planted) {
    DirectoryFacts facts;
    facts.configured = path;
    facts.name = what + (" '" + path + "' ");
    constexpr int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;
    const UniqueFd fd = is_planted ? open_without_magic_links(AT_FDCWD, path.c_str(), flags)
                                   : UniqueFd(open(path.c_str(), flags));
    struct statfs system {};
    const bool is_open = fd && fstatfs(fd.get(), &system) == 0;
    facts.open_error = is_open ? 0 : errno;
    std::error_code ignored;
    facts.path = is_open      ? procfs_fd_realpath(fd.get())
                 : is_planted ? path
                              : fs::weakly_canonical(path, ignored).string();
    const auto type = static_cast<uint32_t>(system.f_type);
    facts.is_remote = type == FUSE_SUPER_MAGIC || type == NFS_SUPER_MAGIC ||
                      type == CIFS_SUPER_MAGIC || type == SMB2_SUPER_MAGIC;
    facts.rename_error = may_rename_in(fd.get()) ? 0 : errno;
    return facts;
}

bool is_same_directory(const DirectoryFacts &a, const DirectoryFacts &b) {
    return a.open_error == 0 && b.open_error == 0 && a.path == b.path;
}

// The system's reason, with the first part of the path that is not there.
string reason_for(int code, fs::path path) {
    std::error_code ignored;
    while (path.has_relative_path() && !fs::exists(path.parent_path(), ignored))
        path = path.parent_path();
    return strerror(code) + (code == ENOENT ? ": there is no '" + path.string() + "'" : "");
}

// Reports what is wrong with the directory. Returns whether the service takes it.
bool judge_directory(const string &entry, const DirectoryFacts &directory) {
    const string &path = directory.configured;
    string why;
    if (path[0] != '/')
        why = "must be absolute: begin it with '/'";
    else if (directory.open_error != 0)
        why = "cannot be opened, " + reason_for(directory.open_error, path);
    else if (!main_path.empty() && !is_under_main_path(directory.path))
        why = "is '" + directory.path + "', not below the main storage '" + main_path + "'";
    const bool is_taken = why.empty();
    if (is_taken && directory.rename_error != 0)
        why = "refuses renames, " + reason_for(directory.rename_error, path);
    // A path may come with the main storage, which is not there at present.
    if (!why.empty() && (!main_path.empty() || path.compare(0, 10, "/mnt/main/") != 0))
        report(error, entry, directory.name + why);
    return is_taken;
}

// A rename between two mounts fails, also where both are one file system.
void report_apart(const string &entry, const DirectoryFacts &from, const DirectoryFacts &to) {
    // Nothing is ever renamed to ".", but the mounts are compared before that is refused.
    if (rename((from.path + "/x").c_str(), (to.path + "/.").c_str()) != 0 && errno == EXDEV)
        report(error, entry, from.name + "and " + to.name + "are on two file systems or mounts");
}

// What one entry puts down, another may take up as if somebody had dropped it there.
void report_chain(const KnownEntry &taker, const KnownEntry &giver) {
    const bool takes_target =
        is_same_directory(taker.watch, giver.target) && taker.entry->matches(giver.target_name);
    if (takes_target || is_same_directory(taker.watch, giver.archive))
        report(&taker == &giver ? error : warning, taker.entry->name,
               "takes what entry '" + giver.entry->name + "' " +
                   (takes_target ? "delivers" : "archives") + " for a new file");
}

} // namespace

KnownEntry collect_facts(const WatchEntry &entry) {
    const fs::path target = entry.target_file;
    const fs::path directory = target.has_parent_path() ? target.parent_path() : ".";
    const auto watch = collect_directory_facts("watch path", entry.watch_path, false);
    const auto place = collect_directory_facts("target directory", directory, false);
    const string archive = place.path + "/" + archive_directory;
    return {&entry, watch, place, collect_directory_facts("ARCHIVE directory", archive, true),
            target.filename()};
}

void judge_entry(const KnownEntry &known) {
    const string &entry = known.entry->name;
    const string target = "the target '" + known.entry->target_file + "' ";
    std::error_code ignored;
    const auto item = fs::symlink_status(known.entry->target_file, ignored);
    string wrong;
    if (known.target_name.empty())
        wrong = "has no file name: write the path of a file";
    else if (known.target_name == archive_directory || is_metadata_dir_name(known.target_name))
        wrong = "has a name that the service itself uses: choose another";
    else if (fs::is_directory(item))
        wrong = "is a directory: write the path of a file in it; the first delivery would archive "
                "the whole directory";
    if (!wrong.empty())
        report(error, entry, target + wrong);
    else if (known.target_name.size() > 205) // no room for the suffix and ".metadir" of that
        report(known.target_name.size() > 246 ? error : warning, entry,
               target + "has a name of more than 205 bytes: it may be archived without metadata, "
                        "or not at all");
    const bool takes_watch = judge_directory(entry, known.watch);
    if (known.target_name.empty() || !judge_directory(entry, known.target))
        return;
    if (takes_watch)
        report_apart(entry, known.watch, known.target);
    if (fs::exists(fs::symlink_status(known.archive.configured, ignored)) &&
        judge_directory(entry, known.archive))
        report_apart(entry, known.archive, known.target);
    if (known.target.is_remote)
        report(warning, entry,
               target + "is on FUSE, NFS or SMB: files in use elsewhere are not seen");
    report_chain(known, known);
}

void judge_pair(const KnownEntry &earlier, const KnownEntry &later) {
    const bool is_same_target =
        is_same_directory(later.target, earlier.target) && later.target_name == earlier.target_name;
    if (is_same_target || is_same_directory(later.watch, earlier.watch))
        report(warning, later.entry->name,
               string("has the ") + (is_same_target ? "target file" : "watch path") +
                   " of entry '" + earlier.entry->name + "' too");
    report_chain(later, earlier);
    report_chain(earlier, later);
}
