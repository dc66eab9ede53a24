// What the TOML parser must not be given, since it would block on it or not survive it.
#ifndef CONFIG_TOML_GUARD_H
#define CONFIG_TOML_GUARD_H

#include <string>
#include <sys/types.h>

constexpr off_t toml_size_limit = off_t{64} << 20; // bytes

// How long the parser may take at first, 60 seconds. A variable for the tests.
extern int toml_trial_limit_ms;

// Throws cpptoml::parse_exception for a path that leads to anything but a regular file, for a file
// that is too large, and for one that the parser did not survive, or end, in a process of its own.
// A file that is not there, or that the parser refuses, is left for the parse that counts to
// report.
void refuse_unfit_toml(const std::string &path);

#endif
