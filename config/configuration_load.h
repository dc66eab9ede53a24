// The configuration file: each of its event tables becomes a watch entry.
//
// Prints: "table array", "Added section '%s'", "Warning: Duplicate section '%s'", "Warning: Invalid
//         section '%s'" with the entry; for a file that cannot be read "%s: %s", "%s: TOML parse
//         error: %s" or "%s: did not return anything".
#ifndef CONFIG_CONFIGURATION_LOAD_H
#define CONFIG_CONFIGURATION_LOAD_H

#include <cpptoml.h>
#include <memory>
#include <string>
#include <string_view>

extern std::string configuration_path;

// Adds the entries of the file at configuration_path to the registry, which it does not clear.
// False, with the registry as it was, when the file cannot be examined or parsed; true otherwise,
// also when there was nothing to add. Lets through what the parser throws besides its parse error.
bool load_configuration();

// load_configuration, with any exception reported as a failure: "%s: %s" with the exception's text.
[[nodiscard]] bool try_load_configuration();

// Adds one event table under this name. A table that is not valid, or whose name is taken, leaves
// the registry as it was.
void add_event_table(const std::string &name, const std::shared_ptr<cpptoml::table> &table);

// The element of a table under a key; null when there is none.
std::shared_ptr<cpptoml::base> find_element(const cpptoml::table &table, const char *key);

// The text of a string element; null for any other kind and for null.
const std::string *string_text(const std::shared_ptr<cpptoml::base> &element);

// May the values, keys and section names of the text nest deeper than the parser's stack carries?
// True when one section has more than 5,000 of the bytes "[", "{" and ".", wherever they stand.
bool nests_too_deep(std::string_view text);

#endif
