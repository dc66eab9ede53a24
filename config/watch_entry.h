// A configured watch entry, and the registry of all of them.
//
// Owns:   an entry its patterns, the registry its entries.
// Prints: only WatchEntry::print.
#ifndef CONFIG_WATCH_ENTRY_H
#define CONFIG_WATCH_ENTRY_H

#include "config/regexstate.h"

#include <cstdio>
#include <map>
#include <string>
#include <vector>

struct WatchEntry {
    std::string name; // equals the entry's key in the registry
    std::string watch_path;
    std::vector<RegexState> patterns;
    std::string target_file; // what a file delivered from the watch folder replaces

    // Describes the entry on the stream, standard error when that is null. Does not flush.
    void print(FILE *stream) const;

    bool all_patterns_ready() const;

    // All three texts are there and every pattern is ready; an entry without patterns is valid.
    bool is_valid() const;

    // Does any pattern match this bare file name?
    bool matches(const char *file_name) const;
    bool matches(const std::string &file_name) const { return matches(file_name.c_str()); }
};

using WatchRegistry = std::map<std::string, WatchEntry>;

// The entries of the process, visited in the order of their names. Changes only between passes.
extern WatchRegistry configuration;

#endif
