#include "platform/include/procfs.h"

#include "base/handles.h"
#include "platform/processes/file_identity.h"
#include "platform/processes/process_walk.h"
#include "platform/processes/socket_answer.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/vfs.h>

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

// Where it cannot be told, the name decides as well.
bool has_own_device(const char *path) {
    struct statfs file_system {};
    return statfs(path, &file_system) != 0 || file_system.f_type == BTRFS_SUPER_MAGIC ||
           file_system.f_type == OVERLAYFS_SUPER_MAGIC;
}

// The inode number of the first socket that serves the file; 0 when none does, -1 when the kernel
// does not say.
int64_t find_server_socket(int netlink, const socket_file &file) {
    alignas(nlmsghdr) char answer[answer_size];
    int64_t found = 0;
    for (;;) {
        const ssize_t size = TEMP_FAILURE_RETRY(recv(netlink, answer, sizeof(answer), 0));
        if (size <= 0)
            return -1;
        switch (read_socket_answer(answer, static_cast<size_t>(size), file, found)) {
        case answer_state::complete:
            return found;
        case answer_state::unusable:
            return -1;
        case answer_state::more:
            break;
        }
    }
}

} // namespace

// 0 is the answer wherever it is not known that no process serves the socket: better an item that
// waits than one cut short.
int32_t get_socket_server_pid(const char *path, int /*flags*/) {
    struct stat file {};
    if (stat(path, &file) != 0)
        return says_nothing_is_there(errno) ? -1 : 0;
    if (!S_ISSOCK(file.st_mode))
        return -1;
    const unique_fd netlink(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
    struct stat socket_file_system {};
    if (!netlink || fstat(netlink.get(), &socket_file_system) != 0 ||
        !request_sockets(netlink.get()))
        return 0;
    const int64_t inode =
        find_server_socket(netlink.get(), {path, {file.st_dev, file.st_ino}, has_own_device(path)});
    if (inode <= 0)
        return inode == 0 ? -1 : 0;
    const pid_t server =
        find_process_with_open_file({socket_file_system.st_dev, static_cast<ino_t>(inode)});
    return server > 0 ? server : 0;
}
