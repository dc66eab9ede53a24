// Checks a configuration before the service is given it. Changes nothing.
#include "check/check.h"
#include "check/command_line.h"
#include "config/configuration_load.h"
#include "service/main_storage.h"

int main(int argc, char **argv) {
    std::string dir;
    std::string file;
    if (const auto status = parse_check_command_line(argc, argv, dir, file))
        return *status;
    if (!file.empty())
        configuration_path = file;
    update_main_path();
    return (dir.empty() ? check_configuration_file() : check_directory(dir)) ? 0 : 1;
}
