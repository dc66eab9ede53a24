#include "check/command_line.h"

#include <iostream>
#include <lyra/lyra.hpp>

std::optional<int> parse_check_command_line(int argc, const char *const *argv, std::string &dir,
                                            std::string &file) {
    bool show_help = false;
    auto parser = lyra::cli() | lyra::help(show_help) |
                  lyra::opt(dir, "watch_folder_dir")["-d"]["--directory"](
                      "What directory has the watch folders?") |
                  lyra::arg(file, "file")("The configuration file to check.");
    const auto result = parser.parse(lyra::args(argc, argv));
    const bool has_both = !dir.empty() && !file.empty();
    if (!result || (has_both && !show_help)) {
        std::cerr << "Error in command line: "
                  << (result ? "Either a directory or a file" : result.message()) << std::endl;
        return 1;
    }
    if (show_help) {
        std::cout << parser << "\n";
        return 0;
    }
    return std::nullopt;
}
