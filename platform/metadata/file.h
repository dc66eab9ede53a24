// The metadata file in an opened metadata directory: reading it, and replacing it durably.
//
// Errors: false.
#ifndef PLATFORM_METADATA_FILE_H
#define PLATFORM_METADATA_FILE_H

#include "base/handles.h"

#include <string>

constexpr size_t metadata_size_limit = size_t{1} << 20; // bytes

// Opens the file and reads it whole. Fails for anything but a regular file of at most
// metadata_size_limit bytes. errno is ENOENT only where there is none.
[[nodiscard]] bool read_metadata_file(int metadir_fd, UniqueFd &file, std::string &text);

// Writes a temporary file, syncs it, renames it over the metadata file and syncs the directory. It
// gets the access rights and the user attributes of the old file, which is open, or not there. On
// failure the old file stands and the temporary file is gone; a failure of the last sync alone
// leaves the new one in place.
[[nodiscard]] bool replace_metadata_file(int metadir_fd, const UniqueFd &old_file,
                                         const std::string &text);

#endif
