// The name under which a replaced file goes into the archive directory.
#ifndef DELIVERY_ARCHIVE_NAME_H
#define DELIVERY_ARCHIVE_NAME_H

#include <cstdint>
#include <ctime>
#include <string>

// The suffix for a local time and a reading of the monotonic clock in microseconds:
// " [ARCHIVE 20240131154502.183020443512]".
std::string archive_suffix(const tm &local_time, uint64_t clock_us);

struct ArchiveBase {
    std::string name;
    bool needs_suffix;
};

// The recorded original name, with a suffix when something of that name stands in the archive
// directory, or that cannot be told; the target's own name with a suffix when none is recorded, or
// one with a slash. A negative descriptor is a directory that is not there yet.
ArchiveBase choose_archive_base(int archive_fd, const std::string &target_name,
                                const std::string &original_name);

#endif
