// The one way to report: a line on standard error.
//
// Errors: a line that cannot be written is lost; nothing that the service does depends on it.
#ifndef COMPAT_DIAGNOSTICS_H
#define COMPAT_DIAGNOSTICS_H

// Formats like printf and writes the text, which carries its own newline, in one go. Keeps errno.
void diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

// From here on, what is printed to stderr waits for its reader a second at most: when a pipe or a
// socket is full and nobody reads for that long, lines are lost, without a wait, until it is read
// again. A slow reader loses nothing. A pipe is opened again for that; the flags of descriptors
// that other processes share stay as they are. Where that is not allowed, nothing changes.
void bound_standard_error();

#endif
