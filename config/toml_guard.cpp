#include "config/toml_guard.h"

#include "compat/handles.h"

#include <cpptoml.h>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>

bool toml_nesting::add(const char *text, size_t size) {
    for (const char *c = text; c != text + size; ++c) {
        if (place_ == place::opening_marks) {
            if (*c == mark_) {
                if (++marks_ < 3)
                    continue;
                multi_line_ = true;
                marks_ = 0;
                place_ = place::string;
                continue;
            }
            // Two marks were an empty string, one was the start of a string on one line.
            place_ = marks_ == 2 ? place::bare : place::string;
            marks_ = 0;
        }
        if (place_ == place::string)
            add_string(*c);
        else if (place_ == place::comment)
            place_ = *c == '\n' ? place::bare : place::comment;
        else if (!add_bare(*c))
            return false;
    }
    return true;
}

bool toml_nesting::add_bare(char c) {
    switch (c) {
    case '#':
        place_ = place::comment;
        break;
    case '"':
    case '\'':
        place_ = place::opening_marks;
        mark_ = c;
        marks_ = 1;
        multi_line_ = false;
        break;
    case '[':
    case '{':
        ++depth_;
        components_ = 0;
        break;
    case ']':
    case '}':
        depth_ -= depth_ > 0 ? 1 : 0;
        break;
    case '.':
        ++components_;
        break;
    case '=':
    case ',':
    case '\n':
        components_ = 0;
        break;
    default:
        break;
    }
    return depth_ <= toml_nesting_limit && components_ <= toml_nesting_limit;
}

void toml_nesting::add_string(char c) {
    if (escaped_) {
        escaped_ = false;
        return;
    }
    escaped_ = c == '\\' && mark_ == '"';
    marks_ = c == mark_ ? marks_ + 1 : 0;
    if (marks_ == (multi_line_ ? 3 : 1) || (c == '\n' && !multi_line_)) {
        place_ = place::bare;
        marks_ = 0;
    }
}

void refuse_unfit_toml(const std::string &path) {
    const unique_fd fd(open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!fd)
        return;
    if (fstat(fd.get(), &status) != 0)
        throw cpptoml::parse_exception{strerror(errno)};
    if (!S_ISREG(status.st_mode))
        throw cpptoml::parse_exception{"not a regular file"};
    toml_nesting nesting;
    char piece[8192];
    ssize_t size = 0;
    while ((size = TEMP_FAILURE_RETRY(read(fd.get(), piece, sizeof(piece)))) > 0)
        if (!nesting.add(piece, static_cast<size_t>(size)))
            throw cpptoml::parse_exception{"nested too deeply"};
    if (size < 0) // the parser would take the part before the fault for the whole
        throw cpptoml::parse_exception{strerror(errno)};
}
