// What the TOML parser must not be given, since it would block or overflow the stack on it.
#ifndef CONFIG_TOML_GUARD_H
#define CONFIG_TOML_GUARD_H

#include <cstddef>
#include <string>

constexpr size_t toml_nesting_limit = 100;

// Follows the nesting of a TOML text that is given to it piece by piece: arrays and inline tables
// one inside another, and the components of a dotted key. Brackets and dots in strings and comments
// do not count.
class toml_nesting {
public:
    // True while no nesting is over the limit.
    bool add(const char *text, size_t size);

private:
    enum class place { bare, comment, opening_marks, string };
    bool add_bare(char c);
    void add_string(char c);

    place place_ = place::bare;
    char mark_ = '\0';        // the quotation mark of the string
    size_t marks_ = 0;        // how many of them have come in a row
    bool multi_line_ = false; // the string stands between three marks
    bool escaped_ = false;    // the last character was a backslash
    size_t depth_ = 0;
    size_t components_ = 0;
};

// Throws cpptoml::parse_exception for a path that leads to anything but a regular file, for a file
// that cannot be read to its end and for one with too deep a nesting. A file that cannot be opened
// is left for the parser to report.
void refuse_unfit_toml(const std::string &path);

#endif
