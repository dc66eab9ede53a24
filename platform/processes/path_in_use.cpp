#include "platform/include/procfs.h"

#include "base/handles.h"
#include "platform/processes/file_identity.h"
#include "platform/processes/own_descriptors.h"
#include "platform/processes/process_walk.h"
#include "platform/processes/write_lease.h"

#include <cerrno>
#include <fcntl.h>

int procfs_path_in_use(const char *path, procfs_path_in_use_info *info, unsigned long max_info,
                       unsigned int flags) {
    if (flags != 0) {
        errno = EINVAL;
        return -1;
    }
    const bool wants_process = info != nullptr && max_info > 0;
    if (wants_process)
        info[0].pid = 0;
    // O_PATH: no device is opened, no FIFO waited for, and the descriptor is no use of the file.
    const unique_fd file(open(path, O_PATH | O_CLOEXEC));
    if (!file)
        return says_nothing_is_there(errno) ? 0 : 1;
    const lease_answer answer = ask_for_write_lease(file.get());
    if (answer == lease_answer::unused)
        return 0;
    // The kernel does not tell whose use it is; the service's own does not count.
    if (answer == lease_answer::used && !service_has_open(file.get()))
        return 1;
    const pid_t holder = find_process_using_file(file.get());
    if (holder > 0 && wants_process)
        info[0].pid = holder;
    return holder == 0 ? 0 : 1;
}
