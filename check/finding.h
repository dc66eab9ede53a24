// One problem that the check found in a configuration.
#ifndef CHECK_FINDING_H
#define CHECK_FINDING_H

#include <string>
#include <utility>
#include <vector>

// An error keeps the entry from working. A warning is something that its owner may not expect.
enum class severity { error, warning };

struct finding {
    severity level;
    std::string text; // one line, without what begins and ends it
};

using findings = std::vector<finding>;

inline void add_error(findings &list, std::string text) {
    list.push_back({severity::error, std::move(text)});
}

inline void add_warning(findings &list, std::string text) {
    list.push_back({severity::warning, std::move(text)});
}

inline std::string in_quotes(const std::string &text) {
    return "'" + text + "'";
}

// What the lines about one entry begin with.
inline std::string about_entry(const std::string &name) {
    return "Entry " + in_quotes(name) + ": ";
}

#endif
