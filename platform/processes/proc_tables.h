// The tables of the process file system. What is not understood in them is passed over.
#ifndef PLATFORM_PROCESSES_PROC_TABLES_H
#define PLATFORM_PROCESSES_PROC_TABLES_H

#include "platform/processes/file_identity.h"

#include <cstdint>
#include <cstdio>

// Does a table of memory mappings (/proc/PID/maps) name the file? True also if reading fails,
// unless the process has ended. With is_on_overlay, a mapping also counts if its inode matches on
// any device: before Linux 6.6 the kernel lists the file below the overlay.
bool maps_file(FILE *table, const FileIdentity &file, bool is_on_overlay);

// Stores the device of a mounted file system (/proc/PID/mountinfo), if it is listed. False with
// errno when the table cannot be read.
[[nodiscard]] bool find_device_of_mount(FILE *table, uint64_t mount_id, dev_t &device);

#endif
