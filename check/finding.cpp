#include "check/finding.h"

#include "base/diagnostics.h"

#include <cstdio>

size_t finding_count[2];

void report(Severity level, const std::string &entry, const std::string &text) {
    ++finding_count[level];
    const std::string about = entry.empty() ? "" : "Entry '" + entry + "': ";
    diag("%s%s\n", level == error ? "Error: " : "Warning: ", visible(about + text).c_str());
}

std::string visible(const std::string &text) {
    std::string shown;
    for (const char c : text) {
        char code[8];
        snprintf(code, sizeof(code), static_cast<unsigned char>(c) < ' ' ? "\\%03o" : "%c", c);
        shown += code;
    }
    replace_all(shown, "\xC2\xA0", "<non-breaking space>");
    return shown;
}

void replace_all(std::string &text, const std::string &old_part, const std::string &new_part) {
    for (size_t at = 0; (at = text.find(old_part, at)) != std::string::npos; at += new_part.size())
        text.replace(at, old_part.size(), new_part);
}
