// The one way to report: a line on standard error.
//
// Errors: a line that cannot be written is lost; nothing that the service does depends on it.
#ifndef COMPAT_DIAGNOSTICS_H
#define COMPAT_DIAGNOSTICS_H

// Formats like printf and writes the text, which carries its own newline, in one go. Keeps errno.
void diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
