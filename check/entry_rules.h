// Facts about an entry, read with the opens that the service makes, and rules that report what
// would keep it from working or surprise its owner. main_path has to be set where the main storage
// is there.
//
// Errors: an operation that failed is a fact; its errno is kept.
// Prints: the rules print findings.
#ifndef CHECK_ENTRY_RULES_H
#define CHECK_ENTRY_RULES_H

#include "config/watch_entry.h"

#include <string>

struct DirectoryFacts {
    std::string configured;
    std::string name;       // what the lines call it: "watch path '/mnt/main/Upload/News' "
    int open_error = 0;     // errno where it could not be opened
    std::string path;       // where it really is, or would be
    bool is_remote = false; // on a file system of which others see another side
    int rename_error = 0;   // errno where names in it cannot be changed
};

struct KnownEntry {
    const WatchEntry *entry; // of the registry
    DirectoryFacts watch, target, archive;
    std::string target_name; // empty when the target's path ends in no name
};

// Opens and closes what the entry names. Changes nothing, and holds no descriptor afterwards.
KnownEntry collect_facts(const WatchEntry &entry);

// Reports what is wrong with the entry taken alone. Without main storage, what lies below it is not
// judged.
void judge_entry(const KnownEntry &known);

// Reports what is wrong with the later of two entries that a pass visits.
void judge_pair(const KnownEntry &earlier, const KnownEntry &later);

#endif
