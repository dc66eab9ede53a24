// Each function that reads bytes from outside, with any bytes. Compiled once for each of them,
// which FUZZ_TARGET names.
#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "platform/metadata/text.h"
#include "service/command_line.h"

#include <cassert>
#include <cstring>
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

// Arguments that end in NUL: what is taken for the directory is one of them, or the end of one.
void command_line(const std::string &input) {
    std::vector<const char *> arguments = {"program"};
    for (size_t at = 0; at < input.size() && arguments.size() < 9; at += strlen(&input[at]) + 1)
        arguments.push_back(&input[at]);
    std::string directory;
    const auto count = static_cast<int>(arguments.size());
    assert(parse_command_line(count, arguments.data(), directory).value_or(0) <= 1);
    assert(input.empty() || (input + '\0').find(directory + '\0') != std::string::npos);
}

extern "C" int LLVMFuzzerTestOneInput(const char *data, size_t size) {
    FUZZ_TARGET({data, size});
    return 0;
}
