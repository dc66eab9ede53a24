#include "delivery/archive_name.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

std::string archive_suffix(const tm &local_time, uint64_t clock_us) {
    char text[128];
    snprintf(text, sizeof(text), " [ARCHIVE %04u%02u%02u%02u%02u%02u.%lu]",
             static_cast<unsigned int>(local_time.tm_year + 1900),
             static_cast<unsigned int>(local_time.tm_mon + 1),
             static_cast<unsigned int>(local_time.tm_mday),
             static_cast<unsigned int>(local_time.tm_hour),
             static_cast<unsigned int>(local_time.tm_min),
             static_cast<unsigned int>(local_time.tm_sec), static_cast<unsigned long>(clock_us));
    return text;
}

archive_base choose_archive_base(int archive_fd, const std::string &target_name,
                                 const std::string &original_name) {
    if (original_name.empty())
        return {target_name, true};
    struct stat status {};
    const bool is_taken = archive_fd >= 0 && (fstatat(archive_fd, original_name.c_str(), &status,
                                                      AT_SYMLINK_NOFOLLOW) == 0 ||
                                              errno != ENOENT);
    return {original_name, is_taken};
}
