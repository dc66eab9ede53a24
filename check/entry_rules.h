// What on the disk would keep an entry from working, or surprise its owner, as a decision over
// facts. main_path has to be set where the main storage is there.
//
// Prints: findings.
#ifndef CHECK_ENTRY_RULES_H
#define CHECK_ENTRY_RULES_H

#include "check/entry_facts.h"

// Reports what is wrong with the entry taken alone. Without main storage, what lies below it is not
// judged.
void judge_entry(const known_entry &known);

// Reports what is wrong with the later of two entries that a pass visits.
void judge_pair(const known_entry &earlier, const known_entry &later);

#endif
