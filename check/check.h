// The check of a whole configuration: it is loaded as the service loads it, and judged.
//
// Prints: what the loader prints, the findings, "Entries: %zu, errors: %zu, warnings: %zu", and
//         what a dry run announces. The command line: the usage text on standard output, "Error in
//         command line: " with a message on standard error.
#ifndef CHECK_CHECK_H
#define CHECK_CHECK_H

#include <optional>
#include <string>

struct CheckOptions {
    std::string dir;  // of directory mode; empty when it was not given
    std::string file; // the configuration file; empty for the service's own
    bool load_only = false;
    bool dry_run = false;
};

// Returns the exit status when the process is to end here: 0 after the usage text, 1 after an
// error.
std::optional<int> parse_check_command_line(int argc, const char *const *argv,
                                            CheckOptions &options);

// Needs main_path, empty where the main storage does not resolve, and an empty registry, which it
// fills. Returns whether no error was found, and leaves the disk as it was.
[[nodiscard]] bool check(const CheckOptions &options);

#endif
