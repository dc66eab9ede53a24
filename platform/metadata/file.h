// The metadata file in an opened metadata directory: reading it, and replacing it durably.
//
// Errors: false.
#ifndef PLATFORM_METADATA_FILE_H
#define PLATFORM_METADATA_FILE_H

#include <string>
#include <sys/types.h>

constexpr size_t metadata_size_limit = size_t{8} << 20; // bytes

struct file_owner {
    mode_t mode;
    uid_t uid;
    gid_t gid;
};

// Reads the whole file and stores its owner. Fails for anything but a regular file of at most
// metadata_size_limit bytes. errno is ENOENT only where there is none; the owner stored is then the
// one for a new file.
[[nodiscard]] bool read_metadata_file(int metadir_fd, std::string &text, file_owner &owner);

// Writes a temporary file, syncs it, renames it over the metadata file and syncs the directory. On
// failure the old file stands and the temporary file is gone; a failure of the last sync alone
// leaves the new one in place.
[[nodiscard]] bool replace_metadata_file(int metadir_fd, const std::string &text,
                                         const file_owner &owner);

#endif
