#include "check/check.h"

#include "base/diagnostics.h"
#include "check/dry_run.h"
#include "check/entry_rules.h"
#include "check/file_rules.h"
#include "check/finding.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "service/main_storage.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>

namespace {

constexpr size_t enough = 10; // findings about pairs in which one entry takes part

// The entries and the facts about them, in the order of a watch pass.
std::vector<known_entry> known_entries() {
    std::vector<known_entry> entries;
    for (const auto &[name, entry] : configuration)
        entries.push_back(collect_facts(entry));
    return entries;
}

// Loads the file into the registry, and judges its text.
void load_file() {
    const char *path = configuration_path.c_str();
    struct stat status {};
    // The service starts with a regular file only, and reloads from whatever leads to one.
    if (lstat(path, &status) == 0 && !S_ISREG(status.st_mode))
        report(error, nullptr, "File '%s' is no regular file, the service does not start", path);
    (void)try_load_configuration();
    if (stat(path, &status) == 0 && !S_ISREG(status.st_mode))
        return;
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        report(error, nullptr, "File '%s' cannot be opened, %s", path, strerror(errno));
        return;
    }
    const std::string text(std::istreambuf_iterator<char>(file), {});
    try {
        std::istringstream stream(text);
        judge_file(path, *parse_toml(stream));
    } catch (const std::exception &failure) {
        explain_syntax(path, text, failure.what());
    }
}

// The entries of directory mode, as the service will have them.
std::vector<known_entry> load_directory(const std::string &dir) {
    // The discovery makes the play folder. The upload folder, which is there whenever there is
    // something to discover, takes its place until the entries are known.
    const std::string upload_root = dir + "/Upload/";
    const std::string play_root = dir + "/Play/";
    configuration = discover_watch_folders(upload_root, upload_root);
    for (auto &[name, entry] : configuration)
        entry.target_file = play_root + entry.target_file.substr(upload_root.size());
    std::vector<known_entry> entries = known_entries();
    for (known_entry &one : entries) {
        if (one.target.open_error != ENOENT)
            continue;
        // The service will make it in the folder above.
        one.target = collect_directory_facts("target directory", dir);
        one.target.path += "/Play";
        one.target.inode = 0;
    }
    return entries;
}

void judge_entries(const std::vector<known_entry> &entries) {
    for (auto later = entries.begin(); later != entries.end(); ++later) {
        judge_entry(*later);
        // Thousands of entries on one folder are one mistake.
        const size_t most = finding_count[warning] + enough;
        for (auto earlier = entries.begin(); earlier != later && finding_count[warning] < most;
             ++earlier)
            judge_pair(*earlier, *later);
    }
}

// The real path of the play folder where the service will make it; empty where it need not.
std::string missing_play(const std::string &dir) {
    struct stat status {};
    const bool is_missing = !dir.empty() && lstat((dir + "/Play").c_str(), &status) != 0;
    return is_missing ? realpath_string(dir) + "/Play" : "";
}

} // namespace

bool check(const check_options &options) {
    finding_count[error] = finding_count[warning] = 0;
    if (!options.file.empty())
        configuration_path = options.file;
    if (options.dir.empty())
        load_file();
    const std::vector<known_entry> entries =
        options.dir.empty() ? known_entries() : load_directory(options.dir);
    if (!options.load_only && main_path.empty())
        report(warning, nullptr,
               "the main storage '/mnt/main' does not resolve, no check runs and "
               "paths below it are not judged");
    if (!options.load_only)
        judge_entries(entries);
    if (entries.empty())
        report(error, nullptr, "nothing to watch");
    diag("Entries: %zu, errors: %zu, warnings: %zu\n", entries.size(), finding_count[error],
         finding_count[warning]);
    if (options.dry_run && !main_path.empty())
        announce_pass(missing_play(options.dir));
    return finding_count[error] == 0;
}
