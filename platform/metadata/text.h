// The lines of a metadata file, and the entry of each.
//
// Errors: only std::bad_alloc, thrown.
#ifndef PLATFORM_METADATA_TEXT_H
#define PLATFORM_METADATA_TEXT_H

#include "platform/include/metadata_v4.h"

#include <string>
#include <string_view>
#include <vector>

// Splits a text into its lines, each with its newline and the empty lines behind it. Empty lines at
// the start are one line of their own. Joined, the lines are the text.
std::vector<std::string> split_metadata(std::string_view text);

// Returns the entry of a line, which may be any bytes. The entry's texts lie in the buffer.
metadata_v4_metadata_entry decode_line(std::string_view line, std::string &buffer);

// Replaces the entry of a line; its newlines stay.
void change_line(std::string &line, const char *name, const char *value);

#endif
