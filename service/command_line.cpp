#include "service/command_line.h"

#include <iostream>
#include <lyra/lyra.hpp>

std::optional<int> parse_command_line(int argc, const char *const *argv,
                                      std::string &watch_folder_dir) {
    watch_folder_dir.clear();
    bool show_help = false;
    auto parser = lyra::cli() | lyra::help(show_help) |
                  lyra::opt(watch_folder_dir, "watch_folder_dir")["-d"]["--directory"](
                      "What directory has the watch folders?");
    const auto result = parser.parse(lyra::args(argc, argv));
    if (!result) {
        std::cerr << "Error in command line: " << result.message() << std::endl;
        return 1;
    }
    if (show_help) {
        std::cout << parser << "\n";
        return 0;
    }
    return std::nullopt;
}
