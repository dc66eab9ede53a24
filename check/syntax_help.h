// Why the parser refuses a configuration file, in the words of whoever has to mend it.
//
// Prints: the source line, and a finding.
#ifndef CHECK_SYNTAX_HELP_H
#define CHECK_SYNTAX_HELP_H

#include <string>

// Prints the line of the text that the parser's message names, and reports that the file cannot be
// loaded, with what to do where the mistake is a common one.
void explain_syntax(const std::string &path, const std::string &text, const std::string &message);

#endif
