// The command line of the check program: what to check, or the usage text.
//
// Prints: the usage text on standard output, "Error in command line: " with a message on standard
//         error.
#ifndef CHECK_COMMAND_LINE_H
#define CHECK_COMMAND_LINE_H

#include <optional>
#include <string>

// Stores the value of --directory and the path of the file, each empty when it was not given.
// Returns the exit status when the process is to end here: 0 after the usage text, 1 after an
// error.
std::optional<int> parse_check_command_line(int argc, const char *const *argv, std::string &dir,
                                            std::string &file);

#endif
