// The check of a whole configuration: it is loaded as the service loads it, and judged.
//
// Errors: none leave; what cannot be read is an error that is reported and counted.
// Prints: what the loader prints, then "Error: %s" or "Warning: %s" for each finding, then
//         "Entries: %zu, errors: %zu, warnings: %zu".
#ifndef CHECK_CHECK_H
#define CHECK_CHECK_H

#include <string>

// Both need main_path, empty where the main storage does not resolve, and an empty registry, which
// they fill. Both return whether no error was found, and leave the disk as it was.

// The configuration file at configuration_path.
[[nodiscard]] bool check_configuration_file();

// The folder tree of directory mode.
[[nodiscard]] bool check_directory(const std::string &dir);

#endif
