// The mappings of a process, asked of the kernel one by one instead of read as text: half the cost.
#ifndef PLATFORM_PROCESSES_MAPPING_QUERY_H
#define PLATFORM_PROCESSES_MAPPING_QUERY_H

#include "platform/processes/file_identity.h"

#include <optional>

// Does the process whose opened table of mappings this is have the file mapped, under one of two
// identities? Nothing when the kernel, one before 6.11, cannot be asked.
std::optional<bool> query_mappings(int table, const file_identity &file,
                                   const file_identity &other);

#endif
