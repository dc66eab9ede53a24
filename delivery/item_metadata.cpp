#include "delivery/item_metadata.h"

#include <cstddef>

// These layouts are the library's too.
static_assert(offsetof(metadata_v4_metadata_context, entry_count) == 8 &&
                  offsetof(metadata_v4_metadata_context, descriptor) == 48,
              "layout of metadata_v4_metadata_context");
static_assert(offsetof(metadata_v4_metadata_entry, name) == 0 &&
                  offsetof(metadata_v4_metadata_entry, value) == 8,
              "layout of metadata_v4_metadata_entry");

ItemMetadata::~ItemMetadata() {
    metadata_v4_metadata_context_destroy(list_);
}

bool ItemMetadata::load_from_file(const ItemContext &context, bool for_writing) {
    if (context.get() == nullptr)
        return false;
    if (list_ == nullptr)
        list_ = metadata_v4_metadata_context_create();
    return list_ != nullptr && metadata_v4_metadata_context_load_metadata_from_file(
                                   list_, context.get(), for_writing ? 1 : 0, nullptr) == 0;
}

bool ItemMetadata::write_to_file(const ItemContext &context) {
    return context.get() != nullptr && list_ != nullptr && list_->descriptor >= 0 &&
           metadata_v4_metadata_context_write_metadata_to_file(list_, context.get(), 0, nullptr) ==
               0;
}

const metadata_v4_metadata_entry *ItemMetadata::entry_at(uint64_t index) const {
    if (index >= entry_count())
        return nullptr;
    const auto *entry = metadata_v4_metadata_context_read_entry(list_, index);
    return entry == nullptr || entry->name == nullptr || entry->value == nullptr ? nullptr : entry;
}

void ItemMetadata::set_entry(uint64_t index, const char *name, const char *value) {
    if (list_ != nullptr)
        metadata_v4_metadata_context_set_name_value_pair(
            list_, metadata_v4_metadata_context_read_entry(list_, index), name, 0, value, 0, -1);
}

void ItemMetadata::add_entry(const char *name, const char *value) {
    if (list_ != nullptr)
        metadata_v4_metadata_context_add_name_value_pair(list_, name, 0, value, 0, -1);
}
