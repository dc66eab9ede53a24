#include "delivery/original_name.h"

#include "base/diagnostics.h"

#include <cstring>

namespace {

constexpr char original_name_key[] = "original filename";

// The index of the last entry with the key, or the number of entries when none has it.
uint64_t find_original_name(const ItemMetadata &list) {
    for (uint64_t index = list.entry_count(); index > 0; --index) {
        const metadata_v4_metadata_entry *entry = list.entry_at(index - 1);
        if (entry != nullptr && strcmp(entry->name, original_name_key) == 0)
            return index - 1;
    }
    return list.entry_count();
}

void print_entries(const ItemMetadata &list) {
    for (uint64_t index = 0; index < list.entry_count(); ++index)
        if (const metadata_v4_metadata_entry *entry = list.entry_at(index))
            diag("metadata '%s'='%s'\n", entry->name, entry->value);
}

void store_name(const ItemContext &target, const char *name) {
    ItemMetadata list;
    if (!list.load_from_file(target, true))
        diag("Target meta load fail\n");
    print_entries(list);
    const uint64_t position = find_original_name(list);
    const bool already = position < list.entry_count();
    diag("already=%u\n", already ? 1U : 0U);
    if (already)
        list.set_entry(position, original_name_key, name);
    else
        list.add_entry(original_name_key, name);
    if (!list.write_to_file(target))
        diag("Target meta save fail\n");
}

} // namespace

std::string original_name_in(const ItemMetadata &list, bool &has_slash) {
    const metadata_v4_metadata_entry *entry = list.entry_at(find_original_name(list));
    const std::string name = entry == nullptr ? "" : entry->value;
    has_slash = name.find('/') != std::string::npos;
    return has_slash ? "" : name;
}

std::string read_original_name(const ItemContext &target, ItemMetadata &list) {
    if (!list.load_from_file(target, false))
        diag("Target meta load fail from old file\n");
    print_entries(list);
    bool has_slash = false;
    std::string name = original_name_in(list, has_slash);
    if (has_slash)
        diag("Forward slash in original name, rejecting.\n");
    diag("Original filename: '%s'\n", name.c_str());
    return name;
}

void record_original_name(ItemContext &target, const char *name) {
    target.close_file_handles();
    target.set_create_metadata_dir(true);
    if (!target.open_file_handles())
        diag("Metadir fail\n");
    store_name(target, name);
    target.close_file_handles();
    target.set_create_metadata_dir(false);
}
