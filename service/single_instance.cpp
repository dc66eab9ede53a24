#include "service/single_instance.h"

#include "base/diagnostics.h"
#include "base/handles.h"

#include <fcntl.h>
#include <sys/file.h>

int instance_lock_fd = -1;
bool instance_lock_held = false;
std::string pid_file_path = "/var/run/vel4_watch_folder_service.pid";

bool service_already_running() {
    if (instance_lock_fd < 0)
        instance_lock_fd = open("/proc/self/exe", O_RDONLY);
    if (instance_lock_fd < 0 || instance_lock_held)
        return false;
    if (flock(instance_lock_fd, LOCK_EX | LOCK_NB) != 0)
        return errno == EAGAIN;
    instance_lock_held = true;
    return false;
}

bool write_pid_file() {
    const UniqueFile file(fopen(pid_file_path.c_str(), "w"));
    if (file == nullptr) {
        diag("Unable to write PID file %s\n", pid_file_path.c_str());
        return false;
    }
    fprintf(file.get(), "%lu\n", static_cast<unsigned long>(getpid()));
    return true;
}

void remove_pid_file() {
    unlink(pid_file_path.c_str());
}
