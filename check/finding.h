// The one way to report what the check found.
//
// Prints: "Error: " or "Warning: ", "Entry '%s': " where it concerns one entry, and the text.
#ifndef CHECK_FINDING_H
#define CHECK_FINDING_H

#include <cstddef>

// An error keeps the entry from working. A warning is something that its owner may not expect.
enum severity { error, warning };

// How many of each were reported. The start of a check sets them to 0.
extern size_t finding_count[2];

// The entry is a name or null. The text is one line; its format has no newline.
void report(severity level, const char *entry, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

#endif
