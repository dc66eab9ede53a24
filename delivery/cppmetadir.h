// The names of metadata directories.
#ifndef DELIVERY_CPPMETADIR_H
#define DELIVERY_CPPMETADIR_H

#include <string>

// The name of the metadata directory of a file, and back. Empty for a path of more than 4096 bytes
// and where the library gives none. A null path is a programming error.
std::string file_to_metadir(const char *path);
std::string file_to_metadir(const std::string &path);
std::string metadir_to_file(const char *path);
std::string metadir_to_file(const std::string &path);

bool is_metadata_dir_name(const char *path);
bool is_metadata_dir_name(const std::string &path);

#endif
