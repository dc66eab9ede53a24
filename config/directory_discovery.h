// Directory mode: every item of DIR/Upload/ is a watch folder whose files go to DIR/Play/.
//
// Errors: none leave but std::bad_alloc; what could be listed is returned.
// Prints: "Warning: cannot list '%s', %s", and "Warning: cannot create '%s', %s" once a build.
#ifndef CONFIG_DIRECTORY_DISCOVERY_H
#define CONFIG_DIRECTORY_DISCOVERY_H

#include "config/watch_entry.h"

#include <string>

// The entries event0, event1, ... for the items of dir's upload folder, whatever their kind, in
// listing order. Makes the play folder when there is at least one item.
WatchRegistry build_directory_configuration(const std::string &dir);

// The same for an upload root and a play root, both ending in a slash.
WatchRegistry discover_watch_folders(const std::string &upload_root, const std::string &play_root);

#endif
