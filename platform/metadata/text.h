// The lines of a metadata file, and the entry of each.
//
// Errors: only std::bad_alloc, thrown.
#ifndef PLATFORM_METADATA_TEXT_H
#define PLATFORM_METADATA_TEXT_H

#include "platform/include/metadata_v4.h"

#include <string>
#include <string_view>
#include <vector>

// Each line with its newline and the empty lines behind it: one after another they are the text.
std::vector<std::string> split_metadata(std::string_view text);

// The entry of a line, any bytes. It points into the buffer.
metadata_v4_metadata_entry decode_line(std::string_view line, std::string &buffer);

// Gives a line another entry, and leaves its newlines.
void change_line(std::string &line, const char *name, const char *value);

#endif
