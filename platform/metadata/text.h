// The text of a metadata file as a list of entries, and back.
//
// Owns:   a metadata_text owns all its texts; entries point into it.
// Errors: only std::bad_alloc, thrown.
#ifndef PLATFORM_METADATA_TEXT_H
#define PLATFORM_METADATA_TEXT_H

#include "platform/include/metadata_v4.h"

#include <cstddef>
#include <list>
#include <memory>
#include <string>
#include <vector>

struct metadata_line {
    metadata_v4_metadata_entry texts; // first, so that an entry's address is its line's address
    size_t begin;                     // where its line stands in `raw`, newline included
    size_t size;                      // 0 for an entry that was added
    bool changed;
};

struct metadata_text {
    std::string raw; // as read; lines that nothing changed are written back from here
    std::unique_ptr<char[]> decoded;
    std::vector<metadata_line> lines;
    std::list<std::string> changed_texts; // a list does not move what entries point to
};

// Splits raw into entries. Any bytes are accepted.
metadata_text parse_metadata(std::string raw);

// The text to store: raw to the byte where no line was changed, changed and added entries encoded.
std::string metadata_to_text(const metadata_text &text);

// Gives an entry new texts.
void change_metadata_line(metadata_text &text, metadata_line &line, std::string name,
                          std::string value);

// Appends an entry.
void add_metadata_line(metadata_text &text, std::string name, std::string value);

#endif
