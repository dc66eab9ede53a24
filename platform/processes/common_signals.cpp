#include "platform/include/process_util.h"

#include <csignal>
#include <initializer_list>

void util_check_and_unmask_common_signals(void) {
    sigset_t common;
    sigemptyset(&common);
    for (const int signal_number : {SIGHUP, SIGINT, SIGTERM, SIGQUIT})
        sigaddset(&common, signal_number);
    sigprocmask(SIG_UNBLOCK, &common, nullptr);
    signal(SIGPIPE, SIG_IGN);
}
