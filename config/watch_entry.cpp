#include "config/watch_entry.h"

#include <algorithm>

WatchRegistry configuration;

void WatchEntry::print(FILE *stream) const {
    FILE *out = stream == nullptr ? stderr : stream;
    fprintf(out, "Entry '%s'\n", name.c_str());
    fprintf(out, "  Watch:      '%s'\n", watch_path.c_str());
    fprintf(out, "  Target:     '%s'\n", target_file.c_str());
    for (const RegexState &state : patterns) {
        fprintf(out, "  Match pattern:\n");
        fprintf(out, "    Pattern:       '%s'\n", state.pattern.c_str());
        fprintf(out, "    Ready:         %s %s\n", state.is_ready() ? "Yes" : "No",
                state.error.c_str());
    }
}

bool WatchEntry::all_patterns_ready() const {
    return std::all_of(patterns.begin(), patterns.end(),
                       [](const RegexState &state) { return state.is_ready(); });
}

bool WatchEntry::is_valid() const {
    return !name.empty() && !watch_path.empty() && all_patterns_ready() && !target_file.empty();
}

bool WatchEntry::matches(const char *file_name) const {
    return std::any_of(patterns.begin(), patterns.end(),
                       [file_name](const RegexState &state) { return state.matches(file_name); });
}
