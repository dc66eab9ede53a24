#include "platform/processes/socket_answer.h"

#include <cstring>
#include <fcntl.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/sysmacros.h>

namespace {

// Connections that a listener accepted show its file too; only what listens serves it, or, where
// there are no connections, what is bound.
bool can_serve(const unix_diag_msg &socket) {
    return socket.udiag_type == SOCK_DGRAM || socket.udiag_state == TCP_LISTEN;
}

std::string last_component(const std::string &path) {
    return path.substr(path.rfind('/') + 1);
}

// What the kernel says of the file that a socket is bound to.
struct bound_file {
    unix_diag_vfs identity{};
    std::string name;
};

bound_file read_attributes(const nlmsghdr *message) {
    const auto *socket = static_cast<const unix_diag_msg *>(NLMSG_DATA(message));
    auto left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(sizeof(*socket)));
    const auto *attribute = reinterpret_cast<const rtattr *>(socket + 1);
    bound_file bound;
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        const size_t size = RTA_PAYLOAD(attribute);
        if (attribute->rta_type == UNIX_DIAG_VFS && size >= sizeof(bound.identity))
            memcpy(&bound.identity, RTA_DATA(attribute), sizeof(bound.identity));
        else if (attribute->rta_type == UNIX_DIAG_NAME)
            bound.name.assign(static_cast<const char *>(RTA_DATA(attribute)), size);
    }
    return bound;
}

// The attribute decides, but for subvolumes and overlays: there the name that was given to bind has
// to lead to the file as well, or, where that is relative, at least the last component agree.
bool is_bound_to(const bound_file &bound, const socket_file &file) {
    if (bound.name.empty() || bound.name[0] == '\0')
        return false; // not bound to a file
    // Of the inode number this is the low half; the kernel's own device number has 20 bits of
    // minor.
    if (bound.identity.udiag_vfs_ino != static_cast<uint32_t>(file.identity.inode))
        return false;
    const uint32_t device = bound.identity.udiag_vfs_dev;
    if (makedev(device >> 20, device & 0xfffff) == file.identity.device)
        return true;
    if (!file.has_own_device)
        return false;
    std::string name = bound.name;
    name.resize(strlen(name.c_str())); // it may come with the NUL that ends it
    file_identity named{};
    return name[0] == '/' ? identify(AT_FDCWD, name.c_str(), named) && named == file.identity
                          : last_component(name) == last_component(file.path);
}

} // namespace

answer_state read_socket_answer(const char *part, size_t size, const socket_file &file,
                                int64_t &inode) {
    auto left = static_cast<int64_t>(size); // below 0 after a last message without its padding
    const auto *message = reinterpret_cast<const nlmsghdr *>(part);
    for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
        if (message->nlmsg_type == NLMSG_DONE)
            return answer_state::complete;
        if (message->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
            message->nlmsg_len < NLMSG_LENGTH(sizeof(unix_diag_msg)))
            return answer_state::unusable;
        const auto *socket = static_cast<const unix_diag_msg *>(NLMSG_DATA(message));
        if (inode == 0 && can_serve(*socket) && is_bound_to(read_attributes(message), file))
            inode = socket->udiag_ino;
    }
    return answer_state::more;
}
