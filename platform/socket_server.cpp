#include "platform/procfs.h"

#include "compat/handles.h"
#include "platform/process_walk.h"

#include <cstring>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace {

constexpr size_t answer_size = size_t{32} << 10;

// The kernel tells of each socket which file it is bound to; the tables of the process file system
// only have the text that was given to bind, which may be relative, moved or linked.
bool request_sockets(int netlink) {
    struct {
        nlmsghdr header;
        unix_diag_req body;
    } request{};
    request.header.nlmsg_len = sizeof(request);
    request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.sdiag_family = AF_UNIX;
    request.body.udiag_states = (1U << TCP_LISTEN) | (1U << TCP_CLOSE) | (1U << TCP_ESTABLISHED);
    request.body.udiag_show = UDIAG_SHOW_NAME | UDIAG_SHOW_VFS;
    return TEMP_FAILURE_RETRY(send(netlink, &request, sizeof(request), 0)) ==
           static_cast<ssize_t>(sizeof(request));
}

// Connections that a listener accepted show its file too; only what listens serves it, or, where
// there are no connections, what is bound.
bool can_serve(const unix_diag_msg &socket) {
    return socket.udiag_type == SOCK_DGRAM || socket.udiag_state == TCP_LISTEN;
}

std::string last_component(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

// The attribute decides where a file's device is that of its file system. With subvolumes and
// overlays it is not: there the name that was given to bind has to lead to the file, or, where that
// is relative, at least the inode number and the last component agree.
bool is_bound_to(const nlmsghdr *message, const std::string &path, const file_identity &file) {
    const auto *socket = static_cast<const unix_diag_msg *>(NLMSG_DATA(message));
    auto left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(sizeof(*socket)));
    const auto *attribute = reinterpret_cast<const rtattr *>(socket + 1);
    unix_diag_vfs bound{};
    std::string name;
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        if (attribute->rta_type == UNIX_DIAG_VFS)
            memcpy(&bound, RTA_DATA(attribute), sizeof(bound));
        else if (attribute->rta_type == UNIX_DIAG_NAME)
            name.assign(static_cast<const char *>(RTA_DATA(attribute)), RTA_PAYLOAD(attribute));
    }
    if (name.empty() || name[0] == '\0')
        return false;    // not bound to a file
    name.resize(strlen(name.c_str())); // it may come with the NUL that ends it
    // The kernel's own device number has 20 bits of minor, and of the inode number this is the low
    // half.
    const bool same_inode = bound.udiag_vfs_ino == static_cast<uint32_t>(file.inode);
    if (same_inode &&
        makedev(bound.udiag_vfs_dev >> 20, bound.udiag_vfs_dev & 0xfffff) == file.device)
        return true;
    file_identity named{};
    return name[0] == '/' ? identify(AT_FDCWD, name.c_str(), named) && named == file
                          : same_inode && last_component(name) == last_component(path);
}

// The inode number of the first socket that serves the file; 0 when none does, -1 when the kernel
// does not say.
int64_t find_server_socket(int netlink, const std::string &path, const file_identity &file) {
    alignas(nlmsghdr) char answer[answer_size];
    int64_t found = 0;
    for (;;) {
        const ssize_t size = TEMP_FAILURE_RETRY(recv(netlink, answer, sizeof(answer), 0));
        if (size <= 0)
            return -1;
        auto left = static_cast<uint32_t>(size);
        const auto *message = reinterpret_cast<const nlmsghdr *>(answer);
        for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
            if (message->nlmsg_type == NLMSG_DONE)
                return found;
            if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY)
                return -1;
            const auto *socket = static_cast<const unix_diag_msg *>(NLMSG_DATA(message));
            if (found == 0 && can_serve(*socket) && is_bound_to(message, path, file))
                found = socket->udiag_ino;
        }
    }
}

} // namespace

int32_t get_socket_server_pid(const char *path, int /*flags*/) {
    struct stat file {};
    if (stat(path, &file) != 0 || !S_ISSOCK(file.st_mode))
        return -1;
    const unique_fd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    struct stat socket_file_system {};
    if (!netlink || fstat(netlink.get(), &socket_file_system) != 0 ||
        !request_sockets(netlink.get()))
        return 0; // not known to be without a server: better an item that waits than one cut short
    const file_identity identity{file.st_dev, file.st_ino};
    const int64_t inode = find_server_socket(netlink.get(), path, identity);
    if (inode <= 0)
        return inode == 0 ? -1 : 0;
    const pid_t server =
        find_process_with_open_file({socket_file_system.st_dev, static_cast<ino_t>(inode)});
    return server > 0 ? server : 0;
}
