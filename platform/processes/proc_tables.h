// The tables of the process file system, as text. Any bytes are accepted; what is not understood is
// passed over. Nothing is opened or asked here.
#ifndef PLATFORM_PROCESSES_PROC_TABLES_H
#define PLATFORM_PROCESSES_PROC_TABLES_H

#include "platform/processes/file_identity.h"

#include <cstdint>
#include <optional>
#include <string_view>

// Does one of the lines, from a table of memory mappings (/proc/PID/maps), map the file?
bool maps_file(std::string_view lines, const file_identity &file);

// What is told of an open descriptor (/proc/PID/fdinfo/N).
struct descriptor_info {
    std::optional<uint64_t> flags; // of open()
    std::optional<uint64_t> mount_id;
    std::optional<uint64_t> inode;
};

descriptor_info parse_descriptor_info(std::string_view text);

// The device of a mounted file system (/proc/PID/mountinfo); nothing when the mount is not listed.
std::optional<dev_t> device_of_mount(std::string_view lines, uint64_t mount_id);

#endif
