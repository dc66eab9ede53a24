// The one way to report: a line on standard error.
//
// Errors: a line that cannot be written is lost; nothing that the service does depends on it.
#ifndef BASE_DIAGNOSTICS_H
#define BASE_DIAGNOSTICS_H

// Formats like printf and writes the text, which carries its own newline, in one go. Keeps errno.
void diag(const char *format, ...) __attribute__((format(printf, 1, 2)));

// From here on, what is printed to stderr waits at most a second for a reader who takes nothing:
// when a pipe, a socket or a terminal is full for that long, lines are lost, without a wait, until
// it is read again. A slow reader loses nothing. A pipe or terminal is opened again for that; the
// flags of descriptors that other processes share stay as they are.
void bound_standard_error();

#endif
