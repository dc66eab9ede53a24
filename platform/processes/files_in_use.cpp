#include "platform/include/procfs.h"

#include "base/handles.h"
#include "platform/processes/file_identity.h"
#include "platform/processes/process_walk.h"
#include "platform/processes/write_lease.h"

#include <fcntl.h>

int procfs_path_in_use(const char *path, procfs_path_in_use_info *info, unsigned long max_info,
                       unsigned int flags) {
    if (max_info > 0)
        info[0].pid = 0;
    // O_PATH: no device is opened, no FIFO waited for, and the descriptor does not count as an
    // open.
    const unique_fd file(open(path, O_PATH | O_CLOEXEC));
    if (!file)
        return means_absent(errno) ? 0 : 1;
    const lease_answer answer = ask_for_write_lease(file.get());
    if (answer == lease_answer::unused)
        return 0;
    // The kernel does not tell whose use it is; the service's own does not count.
    const bool is_used = answer == lease_answer::used && !service_has_open(file.get());
    if (is_used && (flags & PROCFS_FIND_HOLDER) == 0)
        return 1;
    const pid_t holder = find_process_using_file(file.get());
    if (holder > 0 && max_info > 0)
        info[0].pid = holder;
    return is_used || holder != 0 ? 1 : 0;
}
