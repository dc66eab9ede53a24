// A configuration file of any bytes: nothing is thrown, and only usable entries get in.
#include "config/configuration_load.h"
#include "config/watch_entry.h"

#include <cassert>
#include <fstream>
#include <sys/mman.h>

extern "C" int LLVMFuzzerTestOneInput(const char *data, size_t size) {
    static const int fd = memfd_create("configuration", MFD_CLOEXEC);
    configuration_path = "/proc/self/fd/" + std::to_string(fd);
    std::ofstream(configuration_path, std::ios::binary) << std::string(data, size);
    configuration.clear();
    assert(load_configuration() || configuration.empty());
    for (const auto &[key, entry] : configuration)
        assert(key == entry.name && entry.is_valid());
    return 0;
}
