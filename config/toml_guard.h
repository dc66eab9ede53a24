// What the TOML parser must not be given, since it would block or overflow the stack on it.
#ifndef CONFIG_TOML_GUARD_H
#define CONFIG_TOML_GUARD_H

#include <cstddef>
#include <string>
#include <sys/types.h>

constexpr size_t toml_nesting_limit = 100;
constexpr off_t toml_size_limit = off_t{64} << 20; // bytes

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
    void add_key(char c);
    void begin_key();
    void add_string(char c);

    place place_ = place::bare;
    char mark_ = '\0';        // the quotation mark of the string
    size_t marks_ = 0;        // how many of them have come in a row
    bool multi_line_ = false; // the string stands between three marks
    bool escaped_ = false;    // the last character was a backslash
    bool in_key_ = true;
    bool key_begun_ = false;  // a character of the key has come
    bool part_begun_ = false; // of its part behind the last dot
    char open_[toml_nesting_limit];
    size_t depth_ = 0;
    size_t components_ = 0;
};

// Throws cpptoml::parse_exception for a path that leads to anything but a regular file, and for a
// file that is too large, cannot be read to its end or nests too deeply. One that cannot be opened
// is left for the parser to report.
void refuse_unfit_toml(const std::string &path);

#endif
