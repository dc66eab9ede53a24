// The main loop: a check every 60 seconds, a rescan every 300, reload and stop on signals.
//
// Units:  microseconds of the monotonic clock.
// Prints: "Reloading config, SIGHUP", "Warning: Configuration load failure",
//         "Check not completed, %s". A reload also writes a record to syslog.
#ifndef SERVICE_MAIN_LOOP_H
#define SERVICE_MAIN_LOOP_H

#include <cstdint>
#include <string>

// The time between two checks, and when the next is due.
extern uint64_t check_interval_us;
extern uint64_t next_check_us;

// Signals received; written by the handlers.
extern volatile int hup_count;
extern volatile unsigned int stop_count;

void on_hup_signal(int signal_number);

// Aborts the process on the tenth stop signal: somebody no longer wants to wait.
void on_stop_signal(int signal_number);

// Unblocks SIGHUP and installs the handlers.
void install_signal_handlers();

// One due check: a watch pass when the main storage resolves. Throws std::bad_alloc.
void run_check();

// Runs until a stop signal was counted. A check that runs out of memory ends with "Check not
// completed, %s"; the next one begins anew. A directory selects directory mode, an empty text
// configuration-file mode.
void run_main_loop(const std::string &watch_folder_dir);

#endif
