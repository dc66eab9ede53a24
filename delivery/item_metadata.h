// The holder of one item's list of metadata entries.
//
// Owns:   the library's list, made by the first load.
// Errors: operations return false or null; lack of memory throws std::bad_alloc.
#ifndef DELIVERY_ITEM_METADATA_H
#define DELIVERY_ITEM_METADATA_H

#include "delivery/item_context.h"
#include "platform/include/metadata_v4.h"

#include <cstdint>

class ItemMetadata {
public:
    ItemMetadata() = default;
    ItemMetadata(const ItemMetadata &) = delete;
    ItemMetadata &operator=(const ItemMetadata &) = delete;
    ~ItemMetadata();

    // With for_writing the list is bound to the item, so that write_to_file can store it.
    bool load_from_file(const ItemContext &context, bool for_writing);
    bool write_to_file(const ItemContext &context);

    uint64_t entry_count() const { return list_ == nullptr ? 0 : list_->entry_count; }

    // Null for an index out of range and for an entry without name or without value.
    const metadata_v4_metadata_entry *entry_at(uint64_t index) const;

    // Change the entry at an index, or add one; nothing without a list. Whether the library took
    // the text shows when it is written.
    void set_entry(uint64_t index, const char *name, const char *value);
    void add_entry(const char *name, const char *value);

private:
    metadata_v4_metadata_context *list_ = nullptr;
};

#endif
