#include "delivery/delivery_plan.h"

#include "delivery/cppmetadir.h"

DeliveryPlan plan_delivery(int watch_fd, const std::string &name, int target_fd,
                           const std::string &target_name, int archive_fd,
                           const std::string &archive_name) {
    const std::string target_metadir = file_to_metadir(target_name);
    return {{target_fd, target_name, archive_fd, archive_name, MoveRule::must_be_gone,
             "Cannot move ARCHIVE file into directory"},
            {target_fd, target_metadir, archive_fd, file_to_metadir(archive_name), MoveRule::plain,
             "Cannot move ARCHIVE file metadata into directory"},
            {watch_fd, name, target_fd, target_name, MoveRule::never_replace,
             "Cannot move NEW file into directory"},
            {watch_fd, file_to_metadir(name), target_fd, target_metadir, MoveRule::plain,
             "Cannot move NEW file metadata into directory"}};
}
