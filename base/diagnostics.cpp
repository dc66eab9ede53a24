#include "base/diagnostics.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

void diag(const char *format, ...) {
    const int saved = errno;
    va_list arguments;
    va_start(arguments, format);
    // stderr is unbuffered; the C library still assembles one call's text and writes it once.
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    errno = saved;
}
