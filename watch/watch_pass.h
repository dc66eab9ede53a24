// The watch pass: every valid entry's folder is scanned once, in the order of the entries' names.
#ifndef WATCH_WATCH_PASS_H
#define WATCH_WATCH_PASS_H

// Needs main_path. Nothing that happens in one entry keeps the next from being visited but lack of
// memory, which throws std::bad_alloc.
// Prints "Checking... (main='%s')", "BUG: %s forgot it's entry name" with the entry, and what the
// scans print.
void check_watch_entries();

#endif
