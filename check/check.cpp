#include "check/check.h"

#include "base/diagnostics.h"
#include "check/entry_rules.h"
#include "check/file_rules.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "service/main_storage.h"

#include <algorithm>
#include <sys/stat.h>

namespace {

constexpr size_t enough = 10; // findings about one entry

void append(findings &list, findings more) {
    std::move(more.begin(), more.end(), std::back_inserter(list));
}

// What is wrong with the entries, those of the registry and those that the loader dropped, in the
// order of a watch pass.
findings check_entries(const event_tables &tables, const std::vector<known_entry> &entries) {
    std::map<std::string, findings> by_name;
    for (const auto &[name, table] : tables)
        append(by_name[name], table_findings(name, *table));
    for (auto later = entries.begin(); later != entries.end(); ++later) {
        findings &list = by_name[later->entry->name];
        append(list, entry_findings(*later->entry, later->facts));
        // Thousands of entries on one folder are one mistake.
        for (auto earlier = entries.begin(); earlier != later && list.size() < enough; ++earlier)
            append(list, pair_findings(*earlier, *later));
    }
    findings all;
    for (auto &[name, list] : by_name)
        append(all, std::move(list));
    return all;
}

std::vector<known_entry> known_entries() {
    std::vector<known_entry> entries;
    for (const auto &[name, entry] : configuration)
        entries.push_back({&entry, collect_facts(entry)});
    return entries;
}

// What concerns all entries, then each of them.
findings check_all(const event_tables &tables, const std::vector<known_entry> &entries) {
    findings list;
    if (main_path.empty())
        add_warning(list, "the main storage '/mnt/main' does not resolve, no check runs and paths "
                          "below it are not judged");
    append(list, check_entries(tables, entries));
    if (configuration.empty())
        add_error(list, "nothing to watch");
    return list;
}

bool report(const findings &list) {
    size_t errors = 0;
    for (const finding &one : list) {
        const bool is_error = one.level == severity::error;
        diag("%s: %s\n", is_error ? "Error" : "Warning", one.text.c_str());
        errors += is_error ? 1 : 0;
    }
    diag("Entries: %zu, errors: %zu, warnings: %zu\n", configuration.size(), errors,
         list.size() - errors);
    return errors == 0;
}

// The service starts with a regular file only, and reloads from whatever leads to one.
void find_unfit_file(findings &list) {
    struct stat status {};
    if (lstat(configuration_path.c_str(), &status) == 0 && !S_ISREG(status.st_mode))
        add_error(list, "File " + in_quotes(configuration_path) +
                            " is no regular file, the service does not start with it");
}

} // namespace

bool check_configuration_file() {
    findings list;
    find_unfit_file(list);
    std::shared_ptr<cpptoml::table> root;
    if (try_load_configuration()) {
        // Again, for what the loader passed over.
        try {
            root = cpptoml::parse_file(configuration_path);
        } catch (const std::exception &) {
            root = nullptr; // it went away in between
        }
    }
    if (root == nullptr) {
        add_error(list, "File " + in_quotes(configuration_path) + " cannot be loaded");
        return report(list);
    }
    append(list, file_findings(*root));
    append(list, check_all(event_tables_of(*root), known_entries()));
    return report(list);
}

bool check_directory(const std::string &dir) {
    // The discovery makes the play folder. The upload folder, which is there whenever there is
    // something to discover, takes its place until the entries are known.
    const std::string upload_root = dir + "/Upload/";
    const std::string play_root = dir + "/Play/";
    configuration = discover_watch_folders(upload_root, upload_root);
    for (auto &[name, entry] : configuration)
        entry.target_file = play_root + entry.target_file.substr(upload_root.size());
    std::vector<known_entry> entries = known_entries();
    for (known_entry &one : entries) {
        if (one.facts.target.open_error != ENOENT)
            continue;
        // The service will make it in the folder above.
        one.facts.target = collect_directory_facts(dir);
        one.facts.target.path += "/Play";
        one.facts.target.inode = 0;
    }
    return report(check_all({}, entries));
}
