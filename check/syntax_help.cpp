#include "check/syntax_help.h"

#include "base/diagnostics.h"
#include "check/finding.h"

#include <sstream>

namespace {

// What the parser's messages mean in practice, and what to do.
constexpr struct {
    const char *message, *hint;
} hints[] = {
    {"cannot contain whitespace",
     "a key with blanks needs quotes, as in \"watch path\" = \"/mnt/main/Upload/News\", and a "
     "comment begins with #"},
    {"parse value type", "a value needs quotes around it"},
    {"boolean value", "a value needs quotes around it"},
    {"Malformed number", "a value needs quotes around it"},
    {"escape sequence", "a backslash in double quotes begins an escape: put the text in single "
                        "quotes, as in '\\.mxf$'"},
    {"homogeneous", "the values of an array are of one kind: put each pattern in quotes"},
    {"Unexpected character in array", "the values of an array are of one kind: put each pattern in "
                                      "quotes"},
    {"trailing character", "something follows a complete value; in an array over several lines, a "
                           "comma or the closing ] is missing in the line before"},
    {"Unclosed array", "the closing ] of an array is missing"},
    {"string literal", "the closing quote is missing"},
    {"follow after a '='", "a line is a [section], a key = value, or a # comment"},
    {"already present", "a key stands twice in one section"},
    {"Redefinition", "two sections have one name: give each a name of its own"},
};

const char *hint_for(const std::string &text, const std::string &line, const std::string &message) {
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0 || text.compare(0, 2, "\xFF\xFE") == 0)
        return "it begins with a byte order mark, save it as plain UTF-8";
    if (line.find("\xE2\x80") != std::string::npos)
        return "type plain quotes, \" or ', in place of typographic ones";
    for (const auto &[seen, hint] : hints)
        if (message.find(seen) != std::string::npos)
            return hint;
    return "";
}

} // namespace

void explain_syntax(const std::string &path, const std::string &text, const std::string &message) {
    std::istringstream lines(text);
    std::string line;
    const size_t number = std::strtoul(message.c_str() + message.rfind(' '), nullptr, 10);
    for (size_t n = 0; n < number; ++n)
        std::getline(lines, line);
    if (number > 0)
        diag("  line %zu: %s\n", number, line.c_str());
    const char *hint = hint_for(text, line, message);
    report(error, nullptr, "File '%s' cannot be loaded%s%s", path.c_str(),
           *hint == '\0' ? "" : ": ", hint);
}
