#include "platform/include/metadata_v4.h"

#include "platform/metadata/file.h"
#include "platform/metadata/text.h"

#include <cerrno>
#include <new>

namespace {

struct StoredList : metadata_v4_metadata_context {
    StoredList() : metadata_v4_metadata_context{} { descriptor = -1; }
    std::vector<std::string> lines;
    uint64_t index = 0; // of the entry that was read last
    metadata_v4_metadata_entry entry{};
    std::string entry_texts;
    UniqueFd file{-1}; // which the entries were read from
};

StoredList &stored(metadata_v4_metadata_context *list) {
    return *static_cast<StoredList *>(list);
}

} // namespace

metadata_v4_metadata_context *metadata_v4_metadata_context_create(void) {
    return new (std::nothrow) StoredList;
}

void metadata_v4_metadata_context_destroy(metadata_v4_metadata_context *list) {
    delete static_cast<StoredList *>(list);
}

int metadata_v4_metadata_context_load_metadata_from_file(metadata_v4_metadata_context *list,
                                                         metadata_v4_context *context,
                                                         int for_writing, void * /*reserved*/) {
    stored(list) = StoredList();
    std::string raw;
    if (!read_metadata_file(context->metadir_fd, stored(list).file, raw) &&
        (for_writing == 0 || errno != ENOENT))
        return -1;
    stored(list).lines = split_metadata(raw);
    list->entry_count = stored(list).lines.size();
    if (for_writing != 0)
        list->descriptor = context->metadir_fd;
    return 0;
}

int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context *list,
                                                        metadata_v4_context * /*context*/,
                                                        int /*flags*/, void * /*reserved*/) {
    std::string text;
    for (const std::string &line : stored(list).lines)
        text += line;
    return replace_metadata_file(list->descriptor, stored(list).file, text) ? 0 : -1;
}

metadata_v4_metadata_entry *
metadata_v4_metadata_context_read_entry(metadata_v4_metadata_context *list, uint64_t index) {
    StoredList &self = stored(list);
    if (index >= list->entry_count)
        return nullptr;
    self.index = index;
    self.entry = decode_line(self.lines[index], self.entry_texts);
    return &self.entry;
}

int metadata_v4_metadata_context_set_name_value_pair(metadata_v4_metadata_context *list,
                                                     metadata_v4_metadata_entry * /*entry*/,
                                                     const char *name, size_t /*name_length*/,
                                                     const char *value, size_t /*value_length*/,
                                                     int /*reserved*/) {
    change_line(stored(list).lines[stored(list).index], name, value);
    return 0;
}

int metadata_v4_metadata_context_add_name_value_pair(metadata_v4_metadata_context *list,
                                                     const char *name, size_t /*name_length*/,
                                                     const char *value, size_t /*value_length*/,
                                                     int /*reserved*/) {
    std::vector<std::string> &lines = stored(list).lines;
    if (!lines.empty() && lines.back().back() != '\n')
        lines.back() += '\n';
    change_line(lines.emplace_back("\n"), name, value);
    list->entry_count = lines.size();
    return 0;
}
