#include "platform/include/procfs.h"

#include "base/diagnostics.h"
#include "base/open.h"
#include "platform/processes/file_identity.h"
#include "platform/processes/process_walk.h"

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
    request.body.udiag_show = UDIAG_SHOW_VFS;
    return TEMP_FAILURE_RETRY(send(netlink, &request, sizeof(request), 0)) ==
           static_cast<ssize_t>(sizeof(request));
}

// Connections that a listener accepted show its file too; only what listens serves it, or, where
// there are no connections, what is bound.
bool can_serve(const unix_diag_msg &socket) {
    return socket.udiag_type == SOCK_DGRAM || socket.udiag_state == TCP_LISTEN;
}

// A socket that is bound to no file has no such attribute.
bool is_bound_to(const nlmsghdr *message, const FileIdentity &file) {
    const auto *socket = static_cast<const unix_diag_msg *>(NLMSG_DATA(message));
    auto left = static_cast<int>(message->nlmsg_len - NLMSG_LENGTH(sizeof(*socket)));
    const auto *attribute = reinterpret_cast<const rtattr *>(socket + 1);
    for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
        unix_diag_vfs bound{};
        if (attribute->rta_type != UNIX_DIAG_VFS || RTA_PAYLOAD(attribute) < sizeof(bound))
            continue;
        memcpy(&bound, RTA_DATA(attribute), sizeof(bound));
        // Of the inode number this is the low half; the kernel's own device number has 20 bits of
        // minor.
        return bound.udiag_vfs_ino == static_cast<uint32_t>(file.inode) &&
               makedev(bound.udiag_vfs_dev >> 20, bound.udiag_vfs_dev & 0xfffff) == file.device;
    }
    return false;
}

// The inode number of a socket that serves the file; 0 when the kernel lists none, -1 with errno
// when it does not say.
int64_t find_server_socket(int netlink, const FileIdentity &file) {
    if (!request_sockets(netlink))
        return -1;
    alignas(nlmsghdr) char answer[answer_size];
    for (;;) {
        const ssize_t size = TEMP_FAILURE_RETRY(recv(netlink, answer, sizeof(answer), 0));
        if (size <= 0)
            return -1;
        auto left = static_cast<int64_t>(size); // below 0 after a last message without its padding
        const auto *message = reinterpret_cast<const nlmsghdr *>(answer);
        for (; NLMSG_OK(message, left); message = NLMSG_NEXT(message, left)) {
            if (message->nlmsg_type == SOCK_DIAG_BY_FAMILY) {
                const auto *socket = static_cast<const unix_diag_msg *>(NLMSG_DATA(message));
                if (can_serve(*socket) && is_bound_to(message, file))
                    return socket->udiag_ino;
                continue;
            }
            int status = 0; // the end of the answer carries one, as an error does
            memcpy(&status, NLMSG_DATA(message), sizeof(status));
            errno = -status;
            return message->nlmsg_type == NLMSG_DONE && status == 0 ? 0 : -1;
        }
    }
}

void report_no_answer(int error) {
    static bool reported = false;
    if (!reported)
        diag("Warning: running items may not be told from stopped ones, cannot ask the kernel for "
             "sockets, %s\n",
             strerror(error));
    reported = true;
}

} // namespace

int32_t get_socket_server_pid(const char *path, int flags) {
    const UniqueFd file = open_without_magic_links(AT_FDCWD, path, O_PATH | O_CLOEXEC);
    FileIdentity bound{};
    FileIdentity server{};
    if (!file)
        return means_absent(errno) ? -1 : 0;
    if (!identify_for_kernel(file.get(), bound))
        return 0;
    const UniqueFd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    int64_t inode = netlink ? find_server_socket(netlink.get(), bound) : -1;
    if (inode == 0) // a list can miss a socket when another one closes meanwhile
        inode = find_server_socket(netlink.get(), bound);
    if (inode < 0)
        report_no_answer(errno);
    if (inode == 0)
        return -1;
    if (inode < 0 || (flags & SOCKET_SERVER_NO_PID) != 0 || !identify(netlink.get(), "", server))
        return 0;
    server.inode = static_cast<ino_t>(inode);
    const pid_t process = find_process_with_open_file(server);
    return process > 0 ? process : 0;
}
