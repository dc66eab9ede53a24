// The lines of a metadata file, and the entry of each.
//
// Errors: only std::bad_alloc, thrown.
#ifndef PLATFORM_METADATA_TEXT_H
#define PLATFORM_METADATA_TEXT_H

#include "platform/include/metadata_v4.h"

#include <string>
#include <string_view>
#include <vector>

// Splits a text into lines, each with its newline. Joined, they are the text.
std::vector<std::string> split_metadata(std::string_view text);

// Returns the entry of a line, which may be any bytes. The entry's texts lie in the buffer.
metadata_v4_metadata_entry decode_line(std::string_view line, std::string &buffer);

// Replaces the entry of a line; its newline stays.
void change_line(std::string &line, const char *name, const char *value);

#endif
