#include "service/main_storage.h"

#include "watch/cpprealpath.h"

#include <cstdlib>
#include <memory>

std::string main_path;

std::string realpath_string(const std::string &path) {
    const std::unique_ptr<char, decltype(&free)> resolved(realpath(path.c_str(), nullptr), &free);
    return resolved == nullptr ? std::string() : std::string(resolved.get());
}

void update_main_path() {
    main_path = realpath_string("/mnt/main");
}

bool is_under_main_path(const std::string &path) {
    const size_t n = main_path.size();
    return path.size() > n && path.compare(0, n, main_path) == 0 && path[n] == '/';
}

bool is_under_main_path(const char *path) {
    return is_under_main_path(std::string(path));
}

bool is_directory_under_main_path(int fd) {
    return is_under_main_path(procfs_fd_realpath(fd));
}
