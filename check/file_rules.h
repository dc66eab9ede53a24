// What a parsed configuration file says that the loader passes over, and what it refuses. Pure
// functions: neither disk nor registry is asked.
#ifndef CHECK_FILE_RULES_H
#define CHECK_FILE_RULES_H

#include "check/finding.h"

#include <cpptoml.h>
#include <map>
#include <memory>
#include <string>

// The event tables by the names of their entries, in the order of a watch pass. Shared with the
// parsed file.
using event_tables = std::map<std::string, std::shared_ptr<cpptoml::table>>;

// The tables that the loader makes entries of, valid or not.
event_tables event_tables_of(const cpptoml::table &root);

// What stands outside of the event tables: elements that look like one and are passed over, keys of
// an event table in no table, a name that two tables share.
findings file_findings(const cpptoml::table &root);

// What stands in one event table: keys that are missing, empty or of the wrong kind, patterns that
// do not compile, names near a known one, tables.
findings table_findings(const std::string &name, const cpptoml::table &table);

#endif
