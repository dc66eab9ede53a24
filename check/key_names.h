// Names in a configuration file that are probably not what was meant. Pure functions.
#ifndef CHECK_KEY_NAMES_H
#define CHECK_KEY_NAMES_H

#include <string>

// The keys of an event table.
inline const std::string watch_path_key = "watch path";
inline const std::string match_pattern_key = "match pattern";
inline const std::string target_file_key = "target file";

// Is it a name that the loader takes for an event table: does it begin with "event"?
bool is_event_name(const std::string &name);

// Would a reader take it for one: is it, in its first five letters, "event" in other letter case or
// with one letter wrong, missing, doubled or swapped?
bool resembles_event_name(const std::string &name);

bool is_entry_key(const std::string &key);

// The key that somebody who wrote this one may have meant; null when it is a key, or like none.
const std::string *meant_entry_key(const std::string &key);

#endif
