// The scan of one watch folder: it validates the two directories and picks the file to deliver.
#ifndef WATCH_FOLDER_SCAN_H
#define WATCH_FOLDER_SCAN_H

#include "config/watch_entry.h"
#include "delivery/item_context.h"

#include <dirent.h>
#include <string>

// Sets the target's location and opens its directory.
void locate_target(ItemContext &target, const WatchEntry &entry);

// What the scan prints when it stops at these two directories, given by their real paths; null when
// both lie below the main storage.
const char *why_not_scanned(const std::string &watch_realpath, const std::string &target_realpath);

// The next name of the opened watch folder that may be delivered: a regular, not hidden file that a
// pattern matches; null at the end. Valid until the stream is read again.
const char *next_candidate(DIR *watch_dir, const WatchEntry &entry);

// Hands the first regular, not hidden, matching file in directory order to delivery, when the
// opened watch folder and the opened directory of the target both lie below the main storage.
// Prints "Checking '%s' in '%s'", "  if new entries replace '%s'", then "* cannot scan directory,
// %s" or "watch realpath: %s", "target realpath: %s" and, where it stops there, "Not possible to
// check" or "Path(s) do not validate"; then what the delivery prints.
void check_watch_folder(const WatchEntry &entry);

#endif
