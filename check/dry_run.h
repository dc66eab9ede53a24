// What the next check of the service would do, found with the service's own functions.
//
// Prints: a line for each entry.
#ifndef CHECK_DRY_RUN_H
#define CHECK_DRY_RUN_H

#include "check/entry_rules.h"

#include <vector>

// Announces a pass over the entries, in their order; needs main_path. An entry whose folders
// another one before it may change is not judged. With makes_play, the service will make the folder
// of the targets, and the entries name the one above it. Changes nothing on disk.
void announce_pass(const std::vector<KnownEntry> &entries, bool makes_play);

#endif
