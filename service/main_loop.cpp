#include "service/main_loop.h"

#include "base/diagnostics.h"
#include "config/configuration_load.h"
#include "config/directory_discovery.h"
#include "config/watch_entry.h"
#include "platform/include/process_util.h"
#include "service/main_storage.h"
#include "watch/watch_pass.h"

#include <csignal>
#include <cstdlib>
#include <exception>
#include <syslog.h>
#include <unistd.h>

uint64_t check_interval_us = 60000000;
uint64_t next_check_us = 0;
volatile int hup_count = 0;
volatile unsigned int stop_count = 0;

namespace {

constexpr uint64_t first_check_delay_us = 500000;
constexpr uint64_t rescan_interval_us = 300000000;
constexpr uint64_t shortest_wait_us = 1000000;
constexpr unsigned int most_stop_signals = 9;

void change_hup_mask(int how) {
    sigset_t hup;
    sigemptyset(&hup);
    sigaddset(&hup, SIGHUP);
    sigprocmask(how, &hup, nullptr);
}

void rescan_if_due(uint64_t now, uint64_t &rescan_at_us, const std::string &watch_folder_dir) {
    if (now < rescan_at_us)
        return;
    rescan_at_us = now + rescan_interval_us;
    if (!watch_folder_dir.empty())
        configuration = build_directory_configuration(watch_folder_dir);
}

// A check is due 60 s after the last due time, not after the last check, so that delays do not add
// up. A check that is so late that the next one would follow within a second is counted from anew.
void check_or_sleep(uint64_t now) {
    if (next_check_us > now) {
        sleep(1);
        return;
    }
    const uint64_t candidate = next_check_us + check_interval_us;
    next_check_us = candidate > now + shortest_wait_us ? candidate : now + check_interval_us;
    run_check();
}

void reload() {
    change_hup_mask(SIG_BLOCK);
    syslog(LOG_NOTICE, "Velora watch folder service received SIGHUP, reloading configuration");
    diag("Reloading config, SIGHUP\n");
    hup_count = 0;
    change_hup_mask(SIG_UNBLOCK);
    configuration.clear();
    if (!load_configuration())
        diag("Warning: Configuration load failure\n");
}

} // namespace

// The additions are atomic because the handlers can interrupt one another.
void on_hup_signal(int /*signal_number*/) {
    __atomic_add_fetch(&hup_count, 1, __ATOMIC_RELAXED);
}

void on_stop_signal(int /*signal_number*/) {
    if (__atomic_add_fetch(&stop_count, 1, __ATOMIC_RELAXED) > most_stop_signals)
        abort();
}

void install_signal_handlers() {
    change_hup_mask(SIG_UNBLOCK);
    for (const int signal_number : {SIGINT, SIGTERM, SIGQUIT})
        signal(signal_number, on_stop_signal);
    signal(SIGHUP, on_hup_signal);
}

void run_check() {
    update_main_path();
    if (!main_path.empty())
        check_watch_entries();
}

void run_main_loop(const std::string &watch_folder_dir) {
    const uint64_t start = monotonic_clock_us();
    next_check_us = start + first_check_delay_us;
    uint64_t rescan_at_us = start + rescan_interval_us;
    while (stop_count == 0) {
        const uint64_t now = monotonic_clock_us();
        try {
            rescan_if_due(now, rescan_at_us, watch_folder_dir);
            check_or_sleep(now);
            if (hup_count > 0)
                reload();
        } catch (const std::exception &error) { // no memory; what was held is released
            diag("Check not completed, %s\n", error.what());
        }
    }
}
