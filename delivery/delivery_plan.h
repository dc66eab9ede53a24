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
    const char *failure; // the line that reports it, but for the reason
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

#endif
