#include "platform/metadata/text.h"

#include <algorithm>

namespace {

void encode(std::string &out, const char *text, bool is_name) {
    for (; *text != '\0'; ++text) {
        if (*text == '\\' || *text == '\n' || (is_name && *text == '='))
            out += '\\';
        out += *text == '\n' ? 'n' : *text;
    }
}

} // namespace

std::vector<std::string> split_metadata(std::string_view text) {
    std::vector<std::string> lines;
    while (!text.empty()) {
        lines.emplace_back(text.substr(0, std::min(text.find('\n'), text.size() - 1) + 1));
        text.remove_prefix(lines.back().size());
    }
    return lines;
}

// A backslash before anything but the characters it escapes stands for itself.
metadata_v4_metadata_entry decode_line(std::string_view line, std::string &buffer) {
    line = line.substr(0, line.find('\n'));
    if (line.find('\0') != std::string_view::npos)
        return {nullptr, nullptr};
    buffer.clear();
    size_t value = 0; // where it begins, behind the NUL of the name
    for (size_t i = 0; i < line.size(); ++i) {
        const char next = i + 1 < line.size() ? line[i + 1] : '\0';
        if (value == 0 && line[i] == '=') {
            buffer += '\0';
            value = buffer.size();
        } else if (line[i] == '\\' &&
                   (next == '\\' || next == 'n' || (value == 0 && next == '='))) {
            buffer += next == 'n' ? '\n' : next;
            ++i;
        } else {
            buffer += line[i];
        }
    }
    return {value == 1 ? nullptr : buffer.data(), value == 0 ? nullptr : buffer.data() + value};
}

void change_line(std::string &line, const char *name, const char *value) {
    std::string changed;
    encode(changed, name, true);
    changed += '=';
    encode(changed, value, false);
    line.replace(0, line.find('\n'), changed);
}
