// The service's own process: signals, descriptors, the clock.
#ifndef PLATFORM_INCLUDE_PROCESS_UTIL_H
#define PLATFORM_INCLUDE_PROCESS_UTIL_H

#include <stdint.h>
#include <stdio.h>

extern "C" {

// The monotonic clock, in microseconds.
uint64_t monotonic_clock_us(void);

// Unblocks SIGHUP, SIGINT, SIGTERM and SIGQUIT, which a parent may have left blocked.
void util_check_and_unmask_common_signals(void);

// Writes a line "fd N: TARGET" for each open descriptor of the process to the stream; nothing
// when they cannot be listed.
void fd_debug_dump_open_files(FILE *stream);
}

#endif
