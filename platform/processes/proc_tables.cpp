#include "platform/processes/proc_tables.h"

#include <charconv>
#include <sys/sysmacros.h>

namespace {

// The functions below take something off the front of a text.

std::string_view take_line(std::string_view &text) {
    const size_t newline = text.find('\n');
    const std::string_view line = text.substr(0, newline);
    text.remove_prefix(newline == std::string_view::npos ? text.size() : newline + 1);
    return line;
}

bool take_fields(std::string_view &line, int count) {
    for (; count > 0; --count) {
        const size_t blank = line.find(' ');
        if (blank == std::string_view::npos)
            return false;
        line.remove_prefix(blank + 1);
    }
    return true;
}

bool take(std::string_view &line, char expected) {
    const bool found = !line.empty() && line.front() == expected;
    line.remove_prefix(found ? 1 : 0);
    return found;
}

template<typename Number> bool take_number(std::string_view &line, int base, Number &number) {
    const auto [end, error] = std::from_chars(line.data(), line.data() + line.size(), number, base);
    if (error != std::errc())
        return false;
    line.remove_prefix(static_cast<size_t>(end - line.data()));
    return true;
}

bool take_device(std::string_view &line, int base, dev_t &device) {
    unsigned int major_number = 0;
    unsigned int minor_number = 0;
    if (!take_number(line, base, major_number) || !take(line, ':') ||
        !take_number(line, base, minor_number))
        return false;
    device = makedev(major_number, minor_number);
    return true;
}

// "ADDRESSES PERMISSIONS OFFSET MAJOR:MINOR INODE PATH", the device in hexadecimal digits.
bool is_mapping_of(std::string_view line, const file_identity &file,
                   std::string_view overlay_name) {
    file_identity mapped{};
    if (!take_fields(line, 3) || !take_device(line, 16, mapped.device) || !take(line, ' ') ||
        !take_number(line, 10, mapped.inode) || mapped.inode == 0)
        return false;
    if (overlay_name.empty())
        return mapped == file;
    return mapped.inode == file.inode || line.substr(line.rfind('/') + 1) == overlay_name;
}

} // namespace

bool maps_file(std::string_view lines, const file_identity &file, std::string_view overlay_name) {
    while (!lines.empty())
        if (is_mapping_of(take_line(lines), file, overlay_name))
            return true;
    return false;
}

// "ID PARENT MAJOR:MINOR ...", all in decimal digits.
bool find_device_of_mount(std::string_view lines, uint64_t mount_id, dev_t &device) {
    while (!lines.empty()) {
        std::string_view line = take_line(lines);
        uint64_t id = 0;
        if (take_number(line, 10, id) && id == mount_id && take_fields(line, 2) &&
            take_device(line, 10, device))
            return true;
    }
    return false;
}
