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
        else if (place_ == place::bare || *c == '\n') { // a comment ends with its line
            place_ = place::bare;
            if (!add_bare(*c))
                return false;
        }
    }
    return true;
}

// Only where a part of a key or a value begins is a quotation mark the start of a string; the
// parser takes quotation marks, commas and braces further on in a bare key for characters of that
// key.
bool toml_nesting::add_bare(char c) {
    if (c == ' ' || c == '\t')
        return true;
    if (c == '#') {
        place_ = place::comment;
    } else if (c == '\n') {
        if (depth_ == 0)
            begin_key();
    } else if ((c == '"' || c == '\'') && !(in_key_ && part_begun_)) {
        place_ = place::opening_marks;
        mark_ = c;
        marks_ = 1;
        multi_line_ = false;
        part_begun_ = key_begun_ = true;
    } else if (in_key_) {
        add_key(c);
    } else if (c == '[' || c == '{') {
        if (depth_ == toml_nesting_limit)
            return false;
        open_[depth_++] = c;
        if (c == '{')
            begin_key();
    } else if (c == ']' || c == '}') {
        depth_ -= depth_ > 0 ? 1 : 0;
    } else if (c == ',' && depth_ > 0 && open_[depth_ - 1] == '{') {
        begin_key();
    }
    return components_ <= toml_nesting_limit;
}

void toml_nesting::begin_key() {
    in_key_ = true;
    key_begun_ = part_begun_ = false;
    components_ = 0;
}

void toml_nesting::add_key(char c) {
    if (c == '=') {
        in_key_ = false;
    } else if (c == '.') {
        ++components_;
        part_begun_ = false;
        key_begun_ = true;
    } else if (c == '}' && !key_begun_ && depth_ > 0) {
        --depth_;
        in_key_ = false;
    } else if (c != '[' || key_begun_ || depth_ > 0) { // else a table's header
        part_begun_ = key_begun_ = true;
    }
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
    if (status.st_size > toml_size_limit)
        throw cpptoml::parse_exception{"too large"};
    toml_nesting nesting;
    char piece[8192];
    ssize_t size = 0;
    while ((size = TEMP_FAILURE_RETRY(read(fd.get(), piece, sizeof(piece)))) > 0)
        if (!nesting.add(piece, static_cast<size_t>(size)))
            throw cpptoml::parse_exception{"nested too deeply"};
    if (size < 0) // the parser would take the part before the fault for the whole
        throw cpptoml::parse_exception{strerror(errno)};
}
