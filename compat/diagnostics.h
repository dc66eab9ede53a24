// The one way to report: a line on standard error.
//
// Errors: a line that cannot be written is lost; nothing that the service does depends on it.
#ifndef COMPAT_DIAGNOSTICS_H
#define COMPAT_DIAGNOSTICS_H

// Formats like printf and writes the text, which carries its own newline, in one go. Keeps errno.
void diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

// From here on, what is printed to stderr waits for its reader a second at most: when a pipe or a
// socket is full and nobody reads for that long, lines are lost, without a wait, until it is read
// again. A slow reader loses nothing. The descriptor and its flags, which other processes may
// share, stay as they are. Without memory nothing changes.
void bound_standard_error();

#endif
