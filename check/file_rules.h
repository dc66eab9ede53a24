// What the text of a configuration file says: what the loader ignores, what it refuses, and what it
// takes in another sense than its author. Asks neither disk nor registry.
//
// Prints: findings.
#ifndef CHECK_FILE_RULES_H
#define CHECK_FILE_RULES_H

#include <cpptoml.h>
#include <map>
#include <memory>
#include <string>

// The event tables by the names of their entries, in the order of a watch pass. Shared with the
// parsed file.
using event_tables = std::map<std::string, std::shared_ptr<cpptoml::table>>;

// The tables that the loader makes entries of, valid or not. Reports everything else in the file.
event_tables find_event_tables(const cpptoml::table &root);

// Reports what is wrong in one event table: keys that are missing, ignored or without a usable
// value, and patterns.
void judge_table(const std::string &name, const cpptoml::table &table);

#endif
