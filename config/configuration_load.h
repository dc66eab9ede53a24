// The configuration file: each of its event tables becomes a watch entry.
//
// Prints: "table array", "Added section '%s'", "Warning: Duplicate section '%s'", "Warning: Invalid
//         section '%s'" with the entry; for a file that cannot be read "%s: %s", "%s: TOML parse
//         error: %s" or "%s: did not return anything".
#ifndef CONFIG_CONFIGURATION_LOAD_H
#define CONFIG_CONFIGURATION_LOAD_H

#include <cpptoml.h>
#include <istream>
#include <memory>
#include <string>

extern std::string configuration_path;

// Adds the entries of the file at configuration_path to the registry, which it does not clear.
// False, with the registry as it was, when the file cannot be examined or parsed, or with a part of
// the entries for lack of memory; true otherwise, also when there was nothing to add.
[[nodiscard]] bool load_configuration();

// Adds one event table under this name. A table that is not valid, or whose name is taken, leaves
// the registry as it was.
void add_event_table(const std::string &name, const std::shared_ptr<cpptoml::table> &table);

// The element of a table under a key; null when there is none.
std::shared_ptr<cpptoml::base> find_element(const cpptoml::table &table, const char *key);

// The text of a string element; null for any other kind and for null.
const std::string *string_text(const std::shared_ptr<cpptoml::base> &element);

// Parses a file. Throws std::bad_alloc and cpptoml::parse_exception, also when it nests deeper than
// the stack carries, whose soft limit is raised to 64 MiB. A line may then have some 40,000 of the
// bytes "[", "{" and
// ".", wherever they stand, and begin within some 10,000 arrays or more.
std::shared_ptr<cpptoml::table> parse_toml(std::istream &file);

#endif
