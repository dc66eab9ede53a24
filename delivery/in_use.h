// May an item be touched? Both answers are snapshots of the moment of the call.
#ifndef DELIVERY_IN_USE_H
#define DELIVERY_IN_USE_H

#include "delivery/item_context.h"

#include <optional>
#include <string>

// What the active-socket marker in the opened metadata directory leads to: the text of a symbolic
// link, "" for a regular file; nothing where there is no such marker, or none that counts.
std::optional<std::string> read_marker(const ItemContext &item);

// Does the metadata directory, opened beforehand, hold an active-socket marker: a regular file, or
// a symbolic link to a socket that a living process serves? A marker that cannot be examined counts
// as none. A socket counts as served when its server cannot be found out, or when the service is
// short of descriptors or memory to open it.
bool is_item_running(const ItemContext &item);

// Does any process hold the file open? True also when that cannot be told.
bool is_path_in_use(const std::string &path);

#endif
