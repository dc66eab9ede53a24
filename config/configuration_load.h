// The configuration file: each of its event tables becomes a watch entry.
//
// Errors: cpptoml's exceptions other than its parse error pass through load_configuration.
// Prints: one line for each section added, refused or passed over as a duplicate, or for the file
// that
//         could not be read.
#ifndef CONFIG_CONFIGURATION_LOAD_H
#define CONFIG_CONFIGURATION_LOAD_H

#include <cpptoml.h>
#include <memory>
#include <string>

extern std::string configuration_path;

// Adds the entries of the file at configuration_path to the registry, which it does not clear.
// False, with the registry as it was, when the file cannot be examined or parsed; true otherwise,
// also when there was nothing to add.
bool load_configuration();

// Adds one event table under this name. A table that is not valid, or whose name is taken, leaves
// the registry as it was.
void add_event_table(const std::string &name, const std::shared_ptr<cpptoml::table> &table);

#endif
