#include "platform/include/metadata_v4.h"

#include <climits>
#include <string_view>

namespace {

constexpr std::string_view prefix = ".";
constexpr std::string_view suffix = ".metadir";

bool is_file_name(std::string_view name) {
    return !name.empty() && name != "." && name != "..";
}

// The directory part of a path with its slash, and what follows.
struct SplitPath {
    std::string_view directory;
    std::string_view name;
};

SplitPath split(std::string_view path) {
    const size_t start = path.rfind('/') + 1; // 0 without a slash
    return {path.substr(0, start), path.substr(start)};
}

// The file name within a metadata directory name, or nothing when it is no such name.
std::string_view file_of(std::string_view metadir) {
    if (metadir.size() <= prefix.size() + suffix.size() || metadir.size() > NAME_MAX ||
        metadir.substr(0, prefix.size()) != prefix ||
        metadir.substr(metadir.size() - suffix.size()) != suffix)
        return {};
    const std::string_view name =
        metadir.substr(prefix.size(), metadir.size() - prefix.size() - suffix.size());
    return is_file_name(name) ? name : std::string_view();
}

// Writes the texts one after another and a NUL.
template<typename... Texts> int put(char *buffer, size_t size, Texts... texts) {
    if ((texts.size() + ... + 1) > size)
        return -1;
    ((buffer += texts.copy(buffer, texts.size())), ...);
    *buffer = '\0';
    return 0;
}

} // namespace

int metadata_v4_file_to_metadir(char *buffer, size_t size, const char *path) {
    const auto [directory, name] = split(path);
    if (!is_file_name(name) || prefix.size() + name.size() + suffix.size() > NAME_MAX)
        return -1;
    return put(buffer, size, directory, prefix, name, suffix);
}

int metadata_v4_metadir_to_file(char *buffer, size_t size, const char *path) {
    const auto [directory, name] = split(path);
    const std::string_view file = file_of(name);
    return file.empty() ? -1 : put(buffer, size, directory, file);
}

int metadata_v4_context_is_metadata_name(const char *name) {
    return file_of(split(name).name).empty() ? 0 : 1;
}
