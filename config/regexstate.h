// One match pattern: a Perl-compatible regular expression, compiled once, matched anywhere in a
// name and regardless of case.
//
// Owns:   the compiled form; a copy compiles one of its own, a move hands it over.
// Errors: a pattern that does not compile is a state that is not ready and says why in `error`.
#ifndef CONFIG_REGEXSTATE_H
#define CONFIG_REGEXSTATE_H

#include <pcre.h>
#include <string>

struct RegexState {
    explicit RegexState(const char *text);
    RegexState(const RegexState &other);
    RegexState(RegexState &&other) noexcept;
    RegexState &operator=(const RegexState &) = delete;
    ~RegexState();

    bool init_regex(const char *text);
    bool is_ready() const { return compiled != nullptr; }

    // The name is taken as bytes up to its NUL. False for a state that is not ready, and when the
    // matcher gives up.
    bool matches(const char *subject) const;

    pcre *compiled = nullptr;
    std::string error; // empty when ready
    std::string pattern;
};

#endif
