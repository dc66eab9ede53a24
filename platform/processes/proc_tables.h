// The tables of the process file system. What is not understood in them is passed over.
#ifndef PLATFORM_PROCESSES_PROC_TABLES_H
#define PLATFORM_PROCESSES_PROC_TABLES_H

#include "base/handles.h"
#include "platform/processes/file_identity.h"

#include <cstdint>
#include <string>

// Opens a table for reading; null with errno.
unique_file open_table(int at, const std::string &name);

// Does a table of memory mappings (/proc/PID/maps) name the file? True also when it cannot be read,
// unless the process has ended. For a file on an overlay the same inode number on any device
// counts: before Linux 6.6 the kernel lists the file below.
bool maps_file(FILE *table, const file_identity &file, bool is_on_overlay);

// Stores the device of a mounted file system (/proc/PID/mountinfo), if it is listed. False with
// errno when the table cannot be read.
[[nodiscard]] bool find_device_of_mount(FILE *table, uint64_t mount_id, dev_t &device);

#endif
