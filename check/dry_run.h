// What the next check of the service would do, found with the service's own functions.
//
// Prints: a line for each entry.
#ifndef CHECK_DRY_RUN_H
#define CHECK_DRY_RUN_H

#include <string>

// Announces a pass over the registry; needs main_path. An entry whose folders another one before it
// may change is not judged. missing_play is the real path of a play folder that the service will
// make, or empty. Changes nothing on disk.
void announce_pass(const std::string &missing_play);

#endif
