// The command line: a folder tree to work on, or the usage text.
//
// Prints: the usage text on standard output, "Error in command line: " with the parser's message on
//         standard error.
#ifndef SERVICE_COMMAND_LINE_H
#define SERVICE_COMMAND_LINE_H

#include <optional>
#include <string>

// Stores the value of --directory, empty when it was not given. Returns the exit status when the
// process is to end here: 0 after the usage text, 1 after an error.
std::optional<int> parse_command_line(int argc, const char *const *argv,
                                      std::string &watch_folder_dir);

#endif
