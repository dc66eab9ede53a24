#include "check/finding.h"

#include <cstdarg>
#include <cstdio>

size_t finding_count[2];

void report(severity level, const char *entry, const char *format, ...) {
    ++finding_count[level];
    fputs(level == error ? "Error: " : "Warning: ", stderr);
    if (entry != nullptr)
        fprintf(stderr, "Entry '%s': ", entry);
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    fputs("\n", stderr);
}
