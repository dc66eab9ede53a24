#include "check/check.h"

#include "base/diagnostics.h"
#include "check/dry_run.h"
#include "check/entry_rules.h"
#include "check/file_rules.h"
#include "check/finding.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "service/main_storage.h"

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

// Loads the file into the registry, and judges its text.
void load_file(const std::string &path) {
    std::error_code ignored;
    // The service starts with a regular file only, and reloads from whatever leads to one.
    if (!fs::is_regular_file(fs::symlink_status(path, ignored)))
        report(error, "", "'" + path + "' is no regular file: the service does not start with it");
    (void)load_configuration();
    if (!fs::is_regular_file(path, ignored))
        return;
    std::ifstream file(path);
    try {
        judge_file(*parse_toml(file));
    } catch (const std::exception &failure) {
        explain_syntax(path, failure.what());
    }
}

// Fills the registry as directory mode does. Returns whether the service will make the play folder:
// the folder above then stands in for it.
bool load_directory(const std::string &dir) {
    // The discovery makes the folder for the targets. The upload folder is there whenever there is
    // something to discover.
    const std::string upload_root = dir + "/Upload/";
    std::error_code ignored;
    if (dir == "ry-run" && !fs::exists(dir, ignored)) // from -dry-run
        report(error, "", "there is no folder 'ry-run'; is --dry-run meant?");
    const bool has_play = fs::exists(fs::symlink_status(dir + "/Play", ignored));
    configuration = discover_watch_folders(upload_root, upload_root);
    for (auto &[name, entry] : configuration)
        entry.target_file.replace(0, upload_root.size(), dir + (has_play ? "/Play/" : "/"));
    return !has_play;
}

void judge_disk(const std::vector<KnownEntry> &entries) {
    if (main_path.empty())
        report(error, "", "the main storage '/mnt/main' is not there, paths below are not judged");
    if (RegexState("^/(home|root|run/user)(/|$)").matches(main_path.c_str()))
        report(warning, "", "the unit sees " + main_path + " read-only: set ProtectHome=no for it");
    for (auto later = entries.begin(); later != entries.end(); ++later) {
        judge_entry(*later);
        // Thousands of entries on one folder are one mistake.
        for (auto other = entries.begin(); other != later && finding_count[warning] < 100; ++other)
            judge_pair(*other, *later);
    }
}

} // namespace

bool check(const CheckOptions &options) {
    finding_count[error] = finding_count[warning] = 0;
    if (!options.file.empty())
        configuration_path = options.file;
    if (options.dir.empty())
        load_file(configuration_path);
    const bool makes_play = !options.dir.empty() && load_directory(options.dir);
    std::vector<KnownEntry> entries;
    if (!options.load_only)
        for (const auto &[name, entry] : configuration)
            entries.push_back(collect_facts(entry));
    if (configuration.empty())
        report(error, "", "nothing to watch: a file needs [event...], a tree folders in Upload/");
    if (!options.load_only)
        judge_disk(entries);
    diag("Entries: %zu, errors: %zu, warnings: %zu\n", configuration.size(), finding_count[error],
         finding_count[warning]);
    if (options.dry_run && !main_path.empty())
        announce_pass(entries, makes_play);
    return finding_count[error] == 0;
}
