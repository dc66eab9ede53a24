#include "config/regexstate.h"

#include <cstring>
#include <utility>

RegexState::RegexState(const char *text) {
    init_regex(text);
}

RegexState::RegexState(const RegexState &other) : RegexState(other.pattern.c_str()) {}

RegexState::RegexState(RegexState &&other) noexcept
    : compiled(std::exchange(other.compiled, nullptr)), error(std::move(other.error)),
      pattern(std::move(other.pattern)) {}

RegexState::~RegexState() {
    if (compiled != nullptr)
        pcre_free(std::exchange(compiled, nullptr));
}

bool RegexState::init_regex(const char *text) {
    pattern = text;
    const char *message = nullptr;
    int offset = 0;
    compiled = pcre_compile(text, PCRE_CASELESS, &message, &offset, nullptr);
    if (compiled != nullptr)
        return true;
    error = std::string("Unable to compile regex. Error=") + (message == nullptr ? "?" : message) +
            " at char " + std::to_string(static_cast<unsigned long>(offset));
    return false;
}

bool RegexState::matches(const char *subject) const {
    if (compiled == nullptr)
        return false;
    int offsets[2]; // too few to hold any; the matcher then only says whether it matched
    return pcre_exec(compiled, nullptr, subject, static_cast<int>(strlen(subject)), 0, 0, offsets,
                     2) >= 0;
}
