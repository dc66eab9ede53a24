// The C library's calls of a pass, counted, and one of them made to fail or the place of a kill.
// The linker leads the calls of our objects here (--wrap), and operator new is defined here.
//
// Owns: a log in memory that a forked process shares with its parent.
#ifndef TESTS_FAULT_LAYER_H
#define TESTS_FAULT_LAYER_H

#include <cstddef>
#include <string>

// What happens at a call, besides an errno value.
constexpr int no_fault = 0, cut_short = -1, kill_before = -2, kill_after = -3;

// The nth call of a name. The name is one of the log: names are compared by address.
struct fault_place {
    const char *name;
    unsigned int nth;
};

struct fault_log {
    size_t count;
    const char *names[65536];
    bool came;                  // the call of the fault was among them
    unsigned int runs, touched; // for the caller
};

extern fault_log *calls;
fault_log *new_fault_log();

extern std::string redirected_root; // stands for /mnt/main, and has the file of the lock

// From the beginning, with an empty log, to the end calls are counted and the fault happens.
void begin_faults(fault_place place, int what);
void end_faults();

// The number of calls of sleep(): the first raises SIGHUP, the others SIGTERM, and each takes the
// clock past the next check and rescan.
extern unsigned int sleeps;

#endif
