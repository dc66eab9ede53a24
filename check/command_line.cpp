#include "check/check.h"

#include <iostream>
#include <lyra/lyra.hpp>

std::optional<int> parse_check_command_line(int argc, const char *const *argv,
                                            CheckOptions &options) {
    bool show_help = false;
    auto parser = lyra::cli() | lyra::help(show_help) |
                  lyra::opt(options.dir, "watch_folder_dir")["-d"]["--directory"](
                      "What directory has the watch folders?") |
                  lyra::opt(options.load_only)["-l"]["--load"](
                      "Judge only what the service would load, not the disk.") |
                  lyra::opt(options.dry_run)["-n"]["--dry-run"](
                      "Say what the next check of the service would do.") |
                  lyra::arg(options.file, "file")("The configuration file to check.");
    const auto result = parser.parse(lyra::args(argc, argv));
    if (result && show_help) {
        std::cout << parser << "\n";
        return 0;
    }
    std::string wrong = result.message();
    if (!options.dir.empty() && !options.file.empty())
        wrong = "Either a directory or a file";
    else if (options.load_only && options.dry_run)
        wrong = "Either --load or --dry-run";
    if (wrong.empty())
        return std::nullopt;
    std::cerr << "Error in command line: " << wrong << std::endl;
    return 1;
}
