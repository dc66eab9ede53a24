#include "platform/metadata/text.h"

#include <algorithm>
#include <cstring>
#include <string_view>
#include <utility>

namespace {

// Decodes one line behind `out` and moves `out` on. A backslash before anything but the characters
// it escapes stands for itself.
metadata_v4_metadata_entry decode_line(std::string_view line, char *&out) {
    metadata_v4_metadata_entry entry{nullptr, nullptr};
    if (line.find('\0') != std::string_view::npos)
        return entry;
    char *start = out;
    for (size_t i = 0; i < line.size(); ++i) {
        const bool in_name = entry.value == nullptr;
        const char next = i + 1 < line.size() ? line[i + 1] : '\0';
        if (in_name && line[i] == '=') {
            entry.name = i == 0 ? nullptr : start;
            *out++ = '\0';
            entry.value = start = out;
        } else if (line[i] == '\\' && (next == '\\' || next == 'n' || (in_name && next == '='))) {
            *out++ = next == 'n' ? '\n' : next;
            ++i;
        } else {
            *out++ = line[i];
        }
    }
    *out++ = '\0';
    if (entry.value == nullptr)
        entry.name = start;
    return entry;
}

void encode(std::string &out, const char *text, bool is_name) {
    for (; *text != '\0'; ++text) {
        if (*text == '\\' || *text == '\n' || (is_name && *text == '='))
            out += '\\';
        out += *text == '\n' ? 'n' : *text;
    }
}

} // namespace

metadata_text parse_metadata(std::string raw) {
    metadata_text text;
    text.raw = std::move(raw);
    // A decoded line is never longer than its raw form; the last one may lack the newline that
    // makes room for its NUL.
    text.decoded.reset(new char[text.raw.size() + 1]);
    char *out = text.decoded.get();
    for (size_t begin = 0, next = 0; begin < text.raw.size(); begin = next) {
        const size_t end = std::min(text.raw.find('\n', begin), text.raw.size());
        next = std::min(end + 1, text.raw.size());
        const std::string_view line(text.raw.data() + begin, end - begin);
        if (!line.empty())
            text.lines.push_back({decode_line(line, out), begin, next - begin, false});
    }
    return text;
}

std::string metadata_to_text(const metadata_text &text) {
    std::string out;
    size_t copied = 0;
    for (const metadata_line &line : text.lines) {
        if (!line.changed)
            continue;
        out.append(text.raw, copied, line.begin - copied);
        copied = line.begin + line.size;
        if (!out.empty() && out.back() != '\n')
            out += '\n';
        encode(out, line.texts.name, true);
        out += '=';
        encode(out, line.texts.value, false);
        out += '\n';
    }
    return out.append(text.raw, copied, std::string::npos);
}

void change_metadata_line(metadata_text &text, metadata_line &line, std::string name,
                          std::string value) {
    char *new_name = text.changed_texts.emplace_back(std::move(name)).data();
    char *new_value = text.changed_texts.emplace_back(std::move(value)).data();
    line.texts = {new_name, new_value};
    line.changed = true;
}

void add_metadata_line(metadata_text &text, std::string name, std::string value) {
    metadata_line line{{nullptr, nullptr}, text.raw.size(), 0, true};
    change_metadata_line(text, line, std::move(name), std::move(value));
    text.lines.push_back(line);
}
