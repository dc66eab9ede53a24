// What a delivery moves, as data: for the delivery, which carries it out, and for the dry run,
// which announces it.
#ifndef DELIVERY_DELIVERY_PLAN_H
#define DELIVERY_DELIVERY_PLAN_H

#include <string>

enum class MoveRule {
    plain,        // what is not there is not moved
    must_be_gone, // ENOENT may come from the new directory: look whether the item is still there
    never_replace // what has the new name stays
};

// A rename within opened directories, which it borrows. With an empty name nothing is moved.
struct Move {
    int from_fd;
    std::string name;
    int to_fd;
    std::string new_name;
    MoveRule rule;
    const char *failure; // the line that reports it, without the reason
};

// In the order in which they are made. A metadata directory has an empty name where that of its
// file leaves no room for one.
struct DeliveryPlan {
    Move old_file, old_metadata, new_file, new_metadata;
};

// The delivery of the file `name` of the watch folder to the target's name, whose item goes into
// the archive directory under the archive name.
DeliveryPlan plan_delivery(int watch_fd, const std::string &name, int target_fd,
                           const std::string &target_name, int archive_fd,
                           const std::string &archive_name);

// May the user of the process rename in the directory? False with errno. True for a negative
// descriptor, a directory that is yet to be made.
bool may_rename_in(int dir_fd);

// Asks the kernel, in its own order, why it would refuse a move: an errno value, 0 when it would
// not, ENOENT when there is nothing to move. With is_free, what has the new name now has moved away
// by then. Changes nothing. A sticky directory, a quota or an immutable file is not found.
int why_not_moved(const Move &move, bool is_free);

#endif
