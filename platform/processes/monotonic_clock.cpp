// A file of its own, so that tests can replace the clock at link time.
#include "platform/include/process_util.h"

#include <ctime>

uint64_t monotonic_clock_us(void) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}
