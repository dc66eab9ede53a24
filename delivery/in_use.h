// May an item be touched? Both answers are snapshots of the moment of the call.
#ifndef DELIVERY_IN_USE_H
#define DELIVERY_IN_USE_H

#include "delivery/item_context.h"

#include <string>

// Does the metadata directory, opened beforehand, hold an active-socket marker: a regular file, or
// a symbolic link to a socket that a living process serves? False when that cannot be told.
bool is_item_running(const ItemContext &item);

// Does any process hold the file open? False when that cannot be told.
bool is_path_in_use(const std::string &path);

#endif
