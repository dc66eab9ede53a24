#include "platform/include/metadata_v4.h"

#include "platform/metadata/file.h"
#include "platform/metadata/text.h"

#include <cerrno>
#include <cstdlib>
#include <new>
#include <utility>

namespace {

struct stored_list {
    metadata_text text;
    file_owner owner{};
};

stored_list &stored(metadata_v4_metadata_context *list) {
    return *static_cast<stored_list *>(list->implementation);
}

int fail(int error) {
    errno = error;
    return -1;
}

void clear(metadata_v4_metadata_context *list) {
    stored(list) = stored_list();
    list->entry_count = 0;
    list->descriptor = -1;
}

// What the library throws for lack of memory ends here: the interface is C.
template<typename Action> int guarded(Action action) {
    try {
        return action();
    } catch (const std::bad_alloc &) {
        return fail(ENOMEM);
    }
}

// A list that lost a change for lack of memory is not written: the caller would take it for stored.
template<typename Action> int change(metadata_v4_metadata_context *list, Action action) {
    const int result = guarded(action);
    if (result != 0)
        list->descriptor = -1;
    return result;
}

} // namespace

metadata_v4_metadata_context *metadata_v4_metadata_context_create(void) {
    auto *list = static_cast<metadata_v4_metadata_context *>(
        calloc(1, sizeof(metadata_v4_metadata_context)));
    if (list == nullptr)
        return nullptr;
    list->descriptor = -1;
    list->implementation = new (std::nothrow) stored_list;
    if (list->implementation == nullptr)
        free(std::exchange(list, nullptr));
    return list;
}

void metadata_v4_metadata_context_destroy(metadata_v4_metadata_context *list) {
    if (list == nullptr)
        return;
    delete &stored(list);
    free(list);
}

int metadata_v4_metadata_context_load_metadata_from_file(metadata_v4_metadata_context *list,
                                                         metadata_v4_context *context,
                                                         int for_writing, void * /*reserved*/) {
    clear(list);
    if (context->metadir_fd < 0)
        return fail(EBADF);
    return guarded([&] {
        std::string raw;
        file_owner owner{};
        if (!read_metadata_file(context->metadir_fd, raw, owner) &&
            (for_writing == 0 || errno != ENOENT))
            return -1;
        stored(list) = {parse_metadata(std::move(raw)), owner};
        list->entry_count = stored(list).text.lines.size();
        if (for_writing != 0)
            list->descriptor = context->metadir_fd;
        return 0;
    });
}

int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context *list,
                                                        metadata_v4_context *context, int /*flags*/,
                                                        void * /*reserved*/) {
    if (list->descriptor < 0 || list->descriptor != context->metadir_fd)
        return fail(EBADF);
    return guarded([&] {
        const std::string text = metadata_to_text(stored(list).text);
        return replace_metadata_file(list->descriptor, text, stored(list).owner) ? 0 : -1;
    });
}

metadata_v4_metadata_entry *
metadata_v4_metadata_context_read_entry(metadata_v4_metadata_context *list, uint64_t index) {
    return index < list->entry_count ? &stored(list).text.lines[index].texts : nullptr;
}

int metadata_v4_metadata_context_set_name_value_pair(metadata_v4_metadata_context *list,
                                                     metadata_v4_metadata_entry *entry,
                                                     const char *name, size_t /*name_length*/,
                                                     const char *value, size_t /*value_length*/,
                                                     int /*reserved*/) {
    return change(list, [&] {
        // An entry is the first member of its line.
        change_metadata_line(stored(list).text, *reinterpret_cast<metadata_line *>(entry), name,
                             value);
        return 0;
    });
}

int metadata_v4_metadata_context_add_name_value_pair(metadata_v4_metadata_context *list,
                                                     const char *name, size_t /*name_length*/,
                                                     const char *value, size_t /*value_length*/,
                                                     int /*reserved*/) {
    return change(list, [&] {
        add_metadata_line(stored(list).text, name, value);
        list->entry_count = stored(list).text.lines.size();
        return 0;
    });
}
