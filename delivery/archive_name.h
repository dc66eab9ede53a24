// The name under which a replaced file goes into the archive directory.
#ifndef DELIVERY_ARCHIVE_NAME_H
#define DELIVERY_ARCHIVE_NAME_H

#include <cstdint>
#include <ctime>
#include <string>

// The suffix for a local time and a reading of the monotonic clock in microseconds:
// " [ARCHIVE 20240131154502.183020443512]".
std::string archive_suffix(const tm &local_time, uint64_t clock_us);

// Does something of that name stand in the archive directory, or can that not be told?
bool is_archive_name_taken(int archive_fd, const std::string &name);

#endif
