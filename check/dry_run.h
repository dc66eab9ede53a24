// What the next check of the service would do, found with the service's own functions.
//
// Prints: a line for each entry.
#ifndef CHECK_DRY_RUN_H
#define CHECK_DRY_RUN_H

#include "check/entry_rules.h"

#include <vector>

// Needs main_path and the entries in the order of a pass. An entry is judged as it will be when
// those before it have done what was announced. Changes nothing on disk.
void announce_pass(const std::vector<known_entry> &entries);

#endif
