#include "delivery/in_use.h"

#include "base/open.h"
#include "platform/include/procfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char marker[] = ".media.item.active.socket";

bool is_served_socket(const char *path) {
    struct stat status {};
    const UniqueFd file = open_without_magic_links(AT_FDCWD, path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (!file)
        return is_shortage(errno);
    return fstat(file.get(), &status) == 0 && S_ISSOCK(status.st_mode) &&
           get_socket_server_pid(path, SOCKET_SERVER_NO_PID) != -1;
}

} // namespace

std::optional<std::string> read_marker(const ItemContext &item) {
    struct stat status {};
    if (item.metadir_fd() < 0 ||
        fstatat(item.metadir_fd(), marker, &status, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    if (S_ISREG(status.st_mode))
        return "";
    if (!S_ISLNK(status.st_mode))
        return std::nullopt;
    char link[512];
    const ssize_t length = readlinkat(item.metadir_fd(), marker, link, sizeof(link) - 1);
    if (length <= 0)
        return std::nullopt;
    link[length] = '\0';
    return link;
}

bool is_item_running(const ItemContext &item) {
    const std::optional<std::string> link = read_marker(item);
    return link && (link->empty() || is_served_socket(link->c_str()));
}

bool is_path_in_use(const std::string &path) {
    procfs_path_in_use_info info{};
    return procfs_path_in_use(path.c_str(), &info, 1, 0) > 0;
}
