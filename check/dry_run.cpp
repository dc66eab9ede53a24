#include "check/dry_run.h"

#include "base/diagnostics.h"
#include "check/finding.h"
#include "delivery/archive_name.h"
#include "delivery/deliver_file.h"
#include "delivery/delivery_plan.h"
#include "delivery/in_use.h"
#include "delivery/original_name.h"
#include "platform/include/process_util.h"
#include "platform/include/procfs.h"
#include "watch/cpprealpath.h"
#include "watch/folder_scan.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace {

namespace fs = std::filesystem;
using std::string;

string process_text(int pid) {
    const string number = std::to_string(pid);
    string name;
    std::getline(std::ifstream("/proc/" + number + "/comm"), name);
    return pid <= 0 ? "a process that was not found" : "process " + number + " (" + name + ")";
}

string refusal_text(Refusal reason, const WatchEntry &entry, const ItemContext &target,
                    const string &file) {
    const string socket = read_marker(target).value_or("");
    if (reason == Refusal::running)
        return "waits: the item in place is running, its marker " +
               (socket.empty() ? "is a file"
                               : "leads to '" + socket + "', served by " +
                                     process_text(get_socket_server_pid(socket.c_str(), 0)));
    const bool is_source = reason == Refusal::source_in_use;
    const string path = is_source ? entry.watch_path + "/" + file : entry.target_file;
    procfs_path_in_use_info info{};
    procfs_path_in_use(path.c_str(), &info, 1, PROCFS_FIND_HOLDER);
    return "waits: " + (is_source ? "'" + file + "'" : "the item in place") + " is in use by " +
           process_text(info.pid);
}

bool is_failure(int code) {
    return code != 0 && code != ENOENT;
}

string failure_text(const string &text, int code) {
    return "stuck: " + text + ", " + strerror(code);
}

// Takes the four moves one by one.
string plan_text(const DeliveryPlan &plan, const string &archive_name) {
    const string names = " '" + plan.old_file.name + "' as '" + archive_name + "'";
    const string new_name = "deliver '" + plan.new_file.name + "'";
    int code = why_not_moved(plan.old_file, false);
    if (code == ENOENT && plan.old_file.name == archive_directory)
        code = EINVAL; // it is made by then
    if (is_failure(code))
        return failure_text("cannot archive" + names, code);
    string archived = code == 0 ? "archive" + names : "";
    code = why_not_moved(plan.old_metadata, false);
    const bool has_metadata = code == 0;
    if (has_metadata && archived.empty())
        archived = "archive the metadata of" + names;
    const string then = archived.empty() ? "would fail to " : "would " + archived + " and fail to ";
    if (is_failure(code))
        return failure_text(then + "archive the metadata", code);
    code = why_not_moved(plan.new_file, true);
    if (code != 0)
        return failure_text(then + new_name, code);
    const bool brings_metadata = !is_failure(why_not_moved(plan.new_metadata, has_metadata));
    return "would " + new_name + (brings_metadata ? "" : " without its metadata") +
           (archived.empty() ? "" : ", and " + archived);
}

string delivery_text(int watch_fd, const string &file, const ItemContext &target) {
    struct stat status {};
    const UniqueFd archive = open_archive(target.dir_fd());
    const bool is_there =
        archive || fstatat(target.dir_fd(), archive_directory, &status, AT_SYMLINK_NOFOLLOW) == 0;
    if (!archive && is_there)
        return failure_text("cannot open the ARCHIVE directory", errno);
    if (!is_there && !may_rename_in(target.dir_fd()))
        return failure_text("cannot make the ARCHIVE directory", errno);
    ItemMetadata list;
    list.load_from_file(target, false);
    const ArchiveBase base =
        choose_archive_base(archive.get(), target.file_name(), original_name_in(list, false));
    const string suffix = base.needs_suffix ? archive_suffix({}, monotonic_clock_us()) : "";
    const string text = plan_text(plan_delivery(watch_fd, file, target.dir_fd(), target.file_name(),
                                                archive.get(), base.name + suffix),
                                  base.name + (base.needs_suffix ? " [ARCHIVE <time>]" : ""));
    struct statvfs system {};
    const bool has_room = fstatvfs(watch_fd, &system) != 0 || system.f_bavail > 0;
    return has_room ? text : text + "; the storage is full, which can make steps of it fail";
}

// Sets acts when the entry would change something.
string outcome(const WatchEntry &entry, bool makes_play, bool &acts) {
    const UniqueDir watch_dir(opendir(entry.watch_path.c_str()));
    if (watch_dir == nullptr)
        return failure_text("cannot open watch path '" + entry.watch_path + "'", errno);
    ItemContext target;
    locate_target(target, entry);
    if (const char *reason = why_not_scanned(procfs_fd_realpath(dirfd(watch_dir.get())),
                                             procfs_fd_realpath(target.dir_fd())))
        return string("stuck: watch path or target directory, ") + reason;
    if (makes_play)
        target.close_file_handles();
    WatchEntry any_name;
    any_name.patterns.emplace_back("");
    std::vector<string> files;
    std::vector<string> passed_over;
    while (const char *name = next_candidate(watch_dir.get(), any_name))
        (entry.matches(name) ? files : passed_over).emplace_back(name);
    const string passed = std::to_string(passed_over.size()) + " files that no pattern matches";
    if (files.empty())
        return "nothing to deliver" +
               (passed_over.empty() ? "" : "; " + passed + ", such as '" + passed_over[0] + "'");
    target.open_the_file();
    target.open_metadata_dir();
    const Refusal reason = why_refused(files[0].c_str(), target, entry);
    acts = reason == Refusal::none;
    const string text = acts ? delivery_text(dirfd(watch_dir.get()), files[0], target)
                             : refusal_text(reason, entry, target, files[0]);
    const size_t behind = files.size() - 1;
    return behind == 0 ? text : text + "; files that wait behind it: " + std::to_string(behind);
}

// The last entry before this one that may change one of its folders, or a folder above one. Empty
// when there is none.
string find_earlier(const KnownEntry &known, const std::map<string, string> &changed) {
    for (const DirectoryFacts *folder : {&known.watch, &known.target, &known.archive})
        for (fs::path path = folder->path; path.has_relative_path(); path = path.parent_path())
            if (const auto found = changed.find(path); found != changed.end())
                return found->second;
    return "";
}

} // namespace

void announce_pass(const std::vector<KnownEntry> &entries, bool makes_play) {
    // By the real path of a folder, the last entry that acts there.
    std::map<string, string> changed;
    for (const KnownEntry &known : entries) {
        const string &name = known.entry->name;
        const string earlier = find_earlier(known, changed);
        bool acts = !earlier.empty();
        const string text =
            acts ? "depends on entry '" + earlier + "'" : outcome(*known.entry, makes_play, acts);
        diag("Entry '%s': %s\n", visible(name).c_str(), visible(text).c_str());
        if (acts)
            changed[known.watch.path] = changed[known.target.path] = changed[known.archive.path] =
                name;
    }
}
