#include "delivery/original_name.h"

#include "base/diagnostics.h"

#include <cstring>

namespace {

constexpr char original_name_key[] = "original filename";

// Prints the entries where that is wanted. Returns the index of the last one with the key, or the
// number of entries when none has it.
uint64_t scan_entries(const ItemMetadata &list, bool prints) {
    uint64_t position = list.entry_count();
    for (uint64_t index = 0; index < list.entry_count(); ++index) {
        const metadata_v4_metadata_entry *entry = list.entry_at(index);
        if (entry == nullptr)
            continue;
        if (strcmp(entry->name, original_name_key) == 0)
            position = index;
        if (prints)
            diag("metadata '%s'='%s'\n", entry->name, entry->value);
    }
    return position;
}

void store_name(const ItemContext &target, const char *name) {
    ItemMetadata list;
    if (!list.load_from_file(target, true))
        diag("Target meta load fail\n");
    const uint64_t position = scan_entries(list, true);
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

std::string original_name_in(const ItemMetadata &list, bool prints) {
    const metadata_v4_metadata_entry *entry = list.entry_at(scan_entries(list, prints));
    return entry == nullptr ? "" : entry->value;
}

std::string read_original_name(const ItemContext &target, ItemMetadata &list) {
    if (!list.load_from_file(target, false))
        diag("Target meta load fail from old file\n");
    std::string name = original_name_in(list, true);
    if (name.find('/') != std::string::npos) {
        diag("Forward slash in original name, rejecting.\n");
        name.clear();
    }
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
