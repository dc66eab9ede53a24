#include "watch/watch_pass.h"

#include "base/diagnostics.h"
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "watch/folder_scan.h"

#include <exception>

namespace {

// A scan that runs out of memory has released what it held; its folder waits for the next pass.
void scan(const WatchEntry &entry) {
    try {
        check_watch_folder(entry);
    } catch (const std::exception &error) {
        diag("* scan not completed, %s\n", error.what());
    }
}

} // namespace

void check_watch_entries() {
    diag("Checking... (main='%s')\n", main_path.c_str());
    for (const auto &[key, entry] : configuration) {
        if (key != entry.name) {
            diag("BUG: %s forgot it's entry name\n", key.c_str());
            entry.print(nullptr);
        } else if (entry.is_valid()) {
            scan(entry);
        }
    }
}
