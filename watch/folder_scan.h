// The scan of one watch folder: it validates the two directories and picks the file to deliver.
#ifndef WATCH_FOLDER_SCAN_H
#define WATCH_FOLDER_SCAN_H

#include "config/watch_entry.h"

// Hands the first regular, not hidden, matching file in directory order to delivery, when the
// opened watch folder and the opened directory of the target both lie below the main storage.
// Prints "Checking '%s' in '%s'", "  if new entries replace '%s'", then "* cannot scan directory,
// %s" or "watch realpath: %s", "target realpath: %s" and, where it stops there, "Not possible to
// check" or "Path(s) do not validate"; then what the delivery prints.
void check_watch_folder(const WatchEntry &entry);

#endif
