#include "delivery/archive_name.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>

std::string archive_suffix(const tm &local_time, uint64_t clock_us) {
    char text[32];
    strftime(text, sizeof(text), " [ARCHIVE %Y%m%d%H%M%S.", &local_time);
    return text + std::to_string(clock_us) + "]";
}

ArchiveBase choose_archive_base(int archive_fd, const std::string &target_name,
                                const std::string &original_name) {
    if (original_name.empty() || original_name.find('/') != std::string::npos)
        return {target_name, true};
    struct stat status {};
    const bool is_taken = archive_fd < 0 ? original_name == "." || original_name == ".."
                                         : fstatat(archive_fd, original_name.c_str(), &status,
                                                   AT_SYMLINK_NOFOLLOW) == 0 ||
                                               errno != ENOENT;
    return {original_name, is_taken};
}
