// What is given bytes from outside, given any bytes. Compiled once for each function, which
// FUZZ_TARGET names.
#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "platform/metadata/text.h"
#include "service/command_line.h"

#include <cassert>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <sys/mman.h>
#include <unistd.h>

namespace {

std::string entries_of(const metadata_text &text) {
    std::string all;
    for (const metadata_line &line : text.lines)
        for (const char *part : {line.texts.name, line.texts.value})
            all += part == nullptr ? std::string(1, '\0') : part + std::string("\1");
    return all;
}

// What was read is written back to the byte, and what was changed or added is read back.
[[maybe_unused]] void metadata(const std::string &input) {
    metadata_text text = parse_metadata(input);
    assert(metadata_to_text(text) == input);
    const std::string name = "a=\\" + input.substr(0, strnlen(input.c_str(), 9)) + "\n";
    if (!text.lines.empty())
        change_metadata_line(text, text.lines[input.size() % text.lines.size()], name, &input[0]);
    add_metadata_line(text, name, "\n\\");
    assert(entries_of(parse_metadata(metadata_to_text(text))) == entries_of(text));
}

// Nothing is thrown, and only usable entries get in.
[[maybe_unused]] void configuration_file(const std::string &input) {
    static const int fd = memfd_create("configuration", MFD_CLOEXEC);
    configuration_path = "/proc/self/fd/" + std::to_string(fd);
    assert(ftruncate(fd, 0) == 0 &&
           pwrite(fd, input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()));
    configuration.clear();
    assert(try_load_configuration() || configuration.empty());
    for (const auto &[key, entry] : configuration)
        assert(key == entry.name && entry.is_valid());
}

// Arguments that end in NUL: what is taken for the directory is one of them, or the end of one.
[[maybe_unused]] void command_line(const std::string &input) {
    std::vector<const char *> arguments = {"program"};
    for (size_t at = 0; at < input.size() && arguments.size() < 9; at += strlen(&input[at]) + 1)
        arguments.push_back(&input[at]);
    std::string directory;
    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
    const auto count = static_cast<int>(arguments.size());
    assert(parse_command_line(count, arguments.data(), directory).value_or(0) <= 1);
    assert(input.empty() || (input + '\0').find(directory + '\0') != std::string::npos);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FUZZ_TARGET(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}

#ifdef REPLAY // the inputs that are kept, in the folder that is the last argument
int main(int argc, char **argv) {
    assert(!std::filesystem::is_empty(argv[argc - 1]));
    for (const auto &item : std::filesystem::directory_iterator(argv[argc - 1])) {
        std::ifstream in(item.path(), std::ios::binary);
        FUZZ_TARGET({std::istreambuf_iterator<char>(in), {}});
    }
}
#endif
