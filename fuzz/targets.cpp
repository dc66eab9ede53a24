// What is given bytes from outside, given any bytes. Compiled once for each function, which
// FUZZ_TARGET names.
#include "config/configuration_load.h"
#include "config/watch_entry.h"
#include "platform/metadata_text.h"
#include "platform/socket_answer.h"
#include "service/command_line.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sys/mman.h>
#include <unistd.h>

using namespace std::string_literals;

namespace {

void require(bool holds) {
    if (!holds)
        abort();
}

// What was read is written back to the byte; a change and an addition are read back, and change
// nothing else.
[[maybe_unused]] void metadata(const std::string &input) {
    metadata_text text = parse_metadata(input);
    require(metadata_to_text(text) == input);
    const std::string name = "a=\\" + std::string(input.c_str()).substr(0, 9) + "\n";
    const size_t count = text.lines.size(), at = count == 0 ? 0 : input.size() % count;
    if (count > 0)
        change_metadata_line(text, text.lines[at], name, input.c_str());
    add_metadata_line(text, name, "\\n\\");
    const metadata_text again = parse_metadata(metadata_to_text(text));
    require(again.lines.size() == count + 1 && again.lines[count].texts.value == "\\n\\"s);
    for (size_t i = 0; i <= count; ++i)
        for (char *metadata_v4_metadata_entry::*part :
             {&metadata_v4_metadata_entry::name, &metadata_v4_metadata_entry::value}) {
            const char *wrote = text.lines[i].texts.*part, *read = again.lines[i].texts.*part;
            require(wrote == nullptr ? read == nullptr
                                     : read != nullptr && strcmp(wrote, read) == 0);
        }
}

// Only what is an exception comes out, and only usable entries get in.
[[maybe_unused]] void configuration_file(const std::string &input) {
    static const int fd = memfd_create("configuration", MFD_CLOEXEC);
    configuration_path = "/proc/self/fd/" + std::to_string(fd);
    require(ftruncate(fd, 0) == 0 &&
            pwrite(fd, input.data(), input.size(), 0) == static_cast<ssize_t>(input.size()));
    configuration.clear();
    try {
        require(load_configuration() || configuration.empty());
    } catch (const std::exception &) {
        return;
    }
    for (const auto &[key, entry] : configuration)
        require(key == entry.name && entry.is_valid());
}

// Arguments that end in NUL: what is taken for the directory is one of them, or the end of one.
[[maybe_unused]] void command_line(const std::string &input) {
    std::vector<const char *> arguments = {"program"};
    for (size_t at = 0; at < input.size(); at += strlen(&input[at]) + 1)
        arguments.push_back(&input[at]);
    std::string directory;
    std::cout.setstate(std::ios::failbit);
    std::cerr.setstate(std::ios::failbit);
    const auto count = static_cast<int>(arguments.size());
    const auto status = parse_command_line(count, arguments.data(), directory);
    require(!status || *status == 0 || *status == 1);
    require(input.empty() || (input + '\0').find(directory + '\0') != std::string::npos);
}

[[maybe_unused]] void socket_answer(const std::string &input) {
    std::vector<long> aligned(input.size() / sizeof(long) + 1);
    memcpy(aligned.data(), input.data(), input.size());
    int64_t inode = 0;
    const auto state =
        read_socket_answer(reinterpret_cast<const char *>(aligned.data()), input.size(),
                           {"/run/item.socket", {26, 1234}, true}, inode);
    require(inode >= 0 && (state != answer_state::more || inode <= UINT32_MAX));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FUZZ_TARGET(std::string(reinterpret_cast<const char *>(data), size));
    return 0;
}
