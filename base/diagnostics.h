// The one way to report: a line on standard error.
//
// Errors: a line that cannot be written is lost; nothing that the service does depends on it.
#ifndef BASE_DIAGNOSTICS_H
#define BASE_DIAGNOSTICS_H

// Formats like printf and writes the text, which carries its own newline. Waits while standard
// error is a pipe that is full. Keeps errno.
void diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

#endif
