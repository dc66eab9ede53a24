#include "delivery/cppmetadir.h"

#include "platform/include/metadata_v4.h"

#include <alloca.h>
#include <cassert>
#include <cstring>

namespace {

constexpr size_t longest_path = 4096;

using NameMapping = int (*)(char *buffer, size_t size, const char *path);

// A metadata directory name is at most 12 bytes longer than that of its file.
constexpr size_t room_for_metadir = 13;
constexpr size_t room_for_file = 1;

std::string map_name(NameMapping mapping, const char *path, size_t room) {
    const size_t length = strlen(path);
    if (length > longest_path)
        return "";
    auto *buffer = static_cast<char *>(alloca(length + room));
    return mapping(buffer, length + room, path) < 0 ? "" : buffer;
}

} // namespace

std::string file_to_metadir(const char *path) {
    assert(path != NULL);
    return map_name(metadata_v4_file_to_metadir, path, room_for_metadir);
}

std::string file_to_metadir(const std::string &path) {
    return file_to_metadir(path.c_str());
}

std::string metadir_to_file(const char *path) {
    assert(path != NULL);
    return map_name(metadata_v4_metadir_to_file, path, room_for_file);
}

std::string metadir_to_file(const std::string &path) {
    return metadir_to_file(path.c_str());
}

bool is_metadata_dir_name(const char *path) {
    assert(path != NULL);
    return metadata_v4_context_is_metadata_name(path) > 0;
}

bool is_metadata_dir_name(const std::string &path) {
    return is_metadata_dir_name(path.c_str());
}
