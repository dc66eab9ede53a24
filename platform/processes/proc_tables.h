// The tables of the process file system, as text. Any bytes are accepted; what is not understood is
// passed over.
#ifndef PLATFORM_PROCESSES_PROC_TABLES_H
#define PLATFORM_PROCESSES_PROC_TABLES_H

#include "platform/processes/file_identity.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <unistd.h>

// Calls visit(lines) with one piece of an opened table after another until it returns true. A piece
// holds whole lines; a line that does not fit into 32 KiB is passed over. Returns whether one did,
// or false with errno, which is 0 at the end of the table.
template<typename Visit> bool any_lines(int table, Visit visit) {
    char buffer[size_t{32} << 10]; // longer than the longest line, that of a path full of escapes
    size_t kept = 0;
    ssize_t size = 0;
    while ((size = TEMP_FAILURE_RETRY(read(table, buffer + kept, sizeof(buffer) - kept))) > 0) {
        const std::string_view text(buffer, kept + static_cast<size_t>(size));
        const size_t whole = text.rfind('\n') + 1; // 0 without one
        if (visit(text.substr(0, whole)))
            return true;
        kept = whole == 0 && text.size() == sizeof(buffer) ? 0 : text.size() - whole;
        memmove(buffer, buffer + whole, kept);
    }
    if (size == 0)
        errno = 0;
    return false;
}

// Does one of the lines, from a table of memory mappings (/proc/PID/maps), map the file? With a
// name, the file's on an overlay, where kernels before 6.6 tell of the file below: then the same
// inode number on any device counts, and the name as the last component of the path.
bool maps_file(std::string_view lines, const file_identity &file, std::string_view overlay_name);

// Stores the device of a mounted file system (/proc/PID/mountinfo). False when the mount is not
// listed in the lines.
bool find_device_of_mount(std::string_view lines, uint64_t mount_id, dev_t &device);

#endif
