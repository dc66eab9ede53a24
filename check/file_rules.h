// What the text of a configuration file says: what the loader ignores, what it refuses, and what it
// takes in another sense than its author. Asks neither disk nor registry.
//
// Prints: findings.
#ifndef CHECK_FILE_RULES_H
#define CHECK_FILE_RULES_H

#include <cpptoml.h>
#include <string>

// Reports why the parser refuses a file: the source line that its message names, and what to do
// where the mistake is a common one.
void explain_syntax(const std::string &path, const std::string &message);

void judge_file(const cpptoml::table &root);

#endif
