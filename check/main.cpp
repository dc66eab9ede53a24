// Checks a configuration before the service is given it. Changes nothing.
#include "check/check.h"
#include "service/main_storage.h"

int main(int argc, char **argv) {
    CheckOptions options;
    if (const auto status = parse_check_command_line(argc, argv, options))
        return *status;
    update_main_path();
    return check(options) ? 0 : 1;
}
