// The delivery of one ready file: the item in place is archived, the new one takes its place.
#ifndef DELIVERY_DELIVER_FILE_H
#define DELIVERY_DELIVER_FILE_H

#include "base/handles.h"
#include "config/watch_entry.h"
#include "delivery/item_context.h"

#include <dirent.h>

constexpr char archive_directory[] = "ARCHIVE";

// Opens the archive directory beside the target. One that does not lie below the main storage, or
// of which that cannot be told, is not used: EXDEV; nor is one behind a magic link: ELOOP. A
// failure leaves errno.
UniqueFd open_archive(int target_fd);

// Why a file waits.
enum class Refusal { none, running, target_in_use, source_in_use };

// Is the item in place running, or it or the file `name` of the watch folder in use? Needs the
// target's metadata directory, opened where there is one. Changes nothing.
Refusal why_refused(const char *name, const ItemContext &target, const WatchEntry &entry);

// Delivers the file `name` of the opened watch folder to the target, whose location is set and
// whose directory is open. Borrows all four; the target's handles may be closed afterwards. Every
// move is a rename within the opened directories. A file that is refused, or whose predecessor
// cannot be archived whole, stays in the watch folder. Prints the refusal, or "Checking found file
// '%s' to replace '%s'", "Existing file moved into ARCHIVE directory.", what reading and recording
// the original name print, and "Cannot make ARCHIVE directory, %s", "Cannot access ARCHIVE
// directory, %s" or a line "Cannot move ..., %s" for each step that failed.
void deliver_file(DIR *watch_dir, const char *name, ItemContext &target, const WatchEntry &entry);

#endif
