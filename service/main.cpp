// The watch folder service: the start-up sequence, the main loop, the stop.
#include "base/diagnostics.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
#include "service/command_line.h"
#include "service/main_loop.h"
#include "service/single_instance.h"

#include <csignal>
#include <fcntl.h>
#include <iostream>
#include <sys/stat.h>
#include <syslog.h>

namespace {

// A descriptor that the parent left closed would be given to the next file that is opened, and the
// diagnostics would go there.
void open_standard_descriptors() {
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", O_RDWR); // the lowest free number, which is fd
}

// Failed writes return EPIPE or EFBIG instead of ending the process.
void ignore_signals_of_writes() {
    for (const int signal_number : {SIGPIPE, SIGXFSZ})
        signal(signal_number, SIG_IGN);
}

bool is_regular_file(const std::string &path) {
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// Fills the registry. Returns the exit status when there is nothing to run with.
std::optional<int> load_registry(const std::string &watch_folder_dir) {
    if (!watch_folder_dir.empty()) {
        configuration = build_directory_configuration(watch_folder_dir);
    } else if (!is_regular_file(configuration_path)) {
        diag("No configuration path, exiting\n");
        return 0;
    } else if (!load_configuration()) {
        diag("Failed to load configuration.\n");
        return 1;
    }
    if (configuration.empty()) {
        diag("Nothing to watch.\n");
        return 1;
    }
    return std::nullopt;
}

} // namespace

int main(int argc, char **argv) {
    open_standard_descriptors();
    ignore_signals_of_writes();
    std::string watch_folder_dir;
    if (const auto status = parse_command_line(argc, argv, watch_folder_dir))
        return *status;
    std::cout << "watching " << watch_folder_dir << std::endl;
    if (service_already_running()) {
        diag("This service is already running.\n");
        return 1;
    }
    if (const auto status = load_registry(watch_folder_dir))
        return *status;
    const bool has_pid_file = watch_folder_dir.empty();
    if (has_pid_file && !write_pid_file())
        return 1;
    openlog("vel4_watch_folder_service", LOG_PID | LOG_NDELAY, LOG_DAEMON);
    syslog(LOG_INFO, "Velora watch folder service is starting normally");
    util_check_and_unmask_common_signals();
    install_signal_handlers();
    run_main_loop(watch_folder_dir);
    syslog(LOG_INFO, "Velora watch folder service is stopping normally");
    closelog();
    if (has_pid_file)
        remove_pid_file();
    fd_debug_dump_open_files(stderr);
    return 0;
}
