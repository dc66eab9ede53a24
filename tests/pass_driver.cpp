// One watch folder and passes over it, without the daemon's start and waits: the program that the
// fault tests and the long runs drive.
//
// pass_driver MAIN WATCH TARGET [PASSES]   without a number, stops itself before every pass.
//
// Where there is a MAIN/event.toml, or a MAIN/Upload, every pass begins with a reload or a rescan.
// Every allocation asks for the parent's number first, so that one can be made to fail like a
// system call.
#include "base/diagnostics.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "service/main_loop.h"
#include "service/main_storage.h"
#include "watch/watch_pass.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <sys/syscall.h>
#include <unistd.h>

#ifndef __SANITIZE_ADDRESS__
extern "C" void *__libc_malloc(size_t size);

extern "C" void *__libc_calloc(size_t count, size_t size);

namespace {

bool has_memory() {
    const bool has = syscall(SYS_getppid) >= 0;
    errno = has ? errno : ENOMEM;
    return has;
}

} // namespace

extern "C" void *malloc(size_t size) {
    return has_memory() ? __libc_malloc(size) : nullptr;
}

extern "C" void *calloc(size_t count, size_t size) {
    return has_memory() ? __libc_calloc(count, size) : nullptr;
}
#endif

int main(int argc, char **argv) {
    if (argc < 4)
        return 2;
    signal(SIGPIPE, SIG_IGN);
    signal(SIGTERM, [](int /*signal_number*/) { _exit(0); });
    
    main_path = realpath_string(argv[1]);
    configuration_path = main_path + "/event.toml";
    const bool reloads = access(configuration_path.c_str(), F_OK) == 0;
    const bool rescans = access((main_path + "/Upload").c_str(), F_OK) == 0;
    WatchEntry &entry = configuration["event"];
    entry.name = "event";
    entry.watch_path = argv[2];
    entry.target_file = argv[3];
    entry.patterns.emplace_back("\\.mxf$");
    const long passes = argc > 4 ? strtol(argv[4], nullptr, 10) : -1;
    for (long pass = 0; pass != passes; ++pass) {
        if (passes < 0)
            kill(getpid(), SIGSTOP);
        if (reloads) {
            configuration.clear();
            static_cast<void>(try_load_configuration());
        }
        if (rescans)
            configuration = build_directory_configuration(main_path);
        check_watch_entries();
    }
    return 0;
}
