// What would keep an entry from working, or surprise its owner, as a decision over facts. Pure
// functions; main_path has to be set where the main storage is there.
#ifndef CHECK_ENTRY_RULES_H
#define CHECK_ENTRY_RULES_H

#include "check/entry_facts.h"
#include "check/finding.h"

struct known_entry {
    const WatchEntry *entry; // of the registry
    entry_facts facts;
};

// What is wrong with the entry taken alone. Without main storage, what lies below it is not judged.
findings entry_findings(const WatchEntry &entry, const entry_facts &facts);

// What is wrong with the entry beside one that a pass visits before it.
findings pair_findings(const known_entry &earlier, const known_entry &later);

#endif
