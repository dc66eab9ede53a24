// Each function that reads bytes from outside, with any bytes. Compiled once
// for each of them, which FUZZ_TARGET names.
#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "platform/metadata/text.h"

#include <cassert>
#include <fstream>
#include <sys/mman.h>

// What was read is written back to the byte, and what is added is read back.
void metadata(const std::string &input) {
    std::string joined, texts, line;
    for (const std::string &part : split_metadata(input)) {
        decode_line(part, texts);
        joined += part;
    }
    assert(joined == input);
    const std::string name = "a=\\" + input.substr(0, input.find('\0')) + "\n", value = "\n\\";
    change_line(line, name.c_str(), value.c_str());
    const metadata_v4_metadata_entry again = decode_line(line, texts);
    assert(again.name == name);
    assert(again.value == value);
}

// Nothing is thrown, and only usable entries get in.
void configuration_file(const std::string &input) {
    static const int fd = memfd_create("configuration", MFD_CLOEXEC);
    configuration_path = "/proc/self/fd/" + std::to_string(fd);
    std::ofstream(configuration_path, std::ios::binary) << input;
    configuration.clear();
    assert(load_configuration() || configuration.empty());
    for (const auto &[key, entry] : configuration)
        assert(key == entry.name && entry.is_valid());
}

extern "C" int LLVMFuzzerTestOneInput(const char *data, size_t size) {
    FUZZ_TARGET({data, size});
    return 0;
}
