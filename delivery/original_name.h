// The key "original filename": the name that an item had in its watch folder, and under which it is
// archived when it is replaced.
#ifndef DELIVERY_ORIGINAL_NAME_H
#define DELIVERY_ORIGINAL_NAME_H

#include "delivery/item_context.h"
#include "delivery/item_metadata.h"

#include <string>

// The name that a loaded list records, as it stands; empty when there is none. Where that is
// wanted, prints "metadata '%s'='%s'" for each entry.
std::string original_name_in(const ItemMetadata &list, bool prints);

// Loads the target's metadata into the caller's list and returns the recorded name; empty when
// there is none, or one that holds a slash. Prints "metadata '%s'='%s'" for each entry, "Original
// filename: '%s'", and "Target meta load fail from old file" or "Forward slash in original name,
// rejecting." where it applies.
std::string read_original_name(const ItemContext &target, ItemMetadata &list);

// Reopens the target's handles and stores the name in its metadata, which is made where there is
// none; leaves the handles closed. A failure leaves the old metadata, or none. Prints "metadata
// '%s'='%s'" for each entry, "already=%u", and "Metadir fail", "Target meta load fail", "Target
// meta save fail" where it applies.
void record_original_name(ItemContext &target, const char *name);

#endif
