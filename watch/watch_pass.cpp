#include "watch/watch_pass.h"

#include "base/diagnostics.h"
#include "config/watch_entry.h"
#include "service/main_storage.h"
#include "watch/folder_scan.h"

void check_watch_entries() {
    diag("Checking... (main='%s')\n", main_path.c_str());
    for (const auto &[key, entry] : configuration) {
        if (key != entry.name) {
            diag("BUG: %s forgot it's entry name\n", key.c_str());
            entry.print(nullptr);
        } else if (entry.is_valid()) {
            check_watch_folder(entry);
        }
    }
}
