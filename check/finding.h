// The one way to report what the check found, and what rules about text are made of.
//
// Prints: "Error: " or "Warning: ", "Entry '%s': " where it concerns one entry, and the text.
#ifndef CHECK_FINDING_H
#define CHECK_FINDING_H

#include "config/regexstate.h"

#include <string>

// An error keeps the entry from working. A warning is something that its owner may not expect.
enum Severity { error, warning };

// How many of each were reported. The start of a check sets them to 0.
extern size_t finding_count[2];

// The entry is a name, or empty. Name and text are printed as visible() gives them.
void report(Severity level, const std::string &entry, const std::string &text);

// The text in one line: a control byte as in C, "\012", and "<non-breaking space>" for one.
std::string visible(const std::string &text);

void replace_all(std::string &text, const std::string &old_part, const std::string &new_part);

// A table of mistakes: in each row a regular expression that matches a text with the mistake, and
// the advice. Returns the advice of the first row that matches, "" when none does.
template<size_t n>
std::string advice_for(const std::string &text, const char *const (&mistakes)[n][2]) {
    for (const auto &[looks, advice] : mistakes)
        if (RegexState(looks).matches(text.c_str()))
            return advice;
    return "";
}

#endif
