// The metadata file in an opened metadata directory: reading it, and replacing it durably.
//
// Errors: false with errno.
#ifndef PLATFORM_METADATA_METADATA_FILE_H
#define PLATFORM_METADATA_METADATA_FILE_H

#include <string>
#include <sys/types.h>

constexpr size_t metadata_size_limit = size_t{8} << 20; // bytes

// What a rewrite keeps of the file that it replaces.
struct metadata_file_owner {
    bool exists;
    mode_t mode;
    uid_t uid;
    gid_t gid;
};

// Reads the whole file. Fails with ENOENT when there is none, and for anything but a regular file
// of at most metadata_size_limit bytes.
[[nodiscard]] bool read_metadata_file(int metadir_fd, std::string &text,
                                      metadata_file_owner &owner);

// Writes a temporary file, syncs it, renames it over the metadata file and syncs the directory. On
// failure the old file stands and the temporary file is gone; a failure of the last sync alone
// leaves the new one in place.
[[nodiscard]] bool replace_metadata_file(int metadir_fd, const std::string &text,
                                         const metadata_file_owner &owner);

#endif
