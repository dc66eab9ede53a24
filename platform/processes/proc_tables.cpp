#include "platform/processes/proc_tables.h"

#include <cerrno>
#include <cinttypes>
#include <sys/sysmacros.h>

namespace {

constexpr int line_size = 32 << 10; // longer than the longest, that of a path full of escapes

} // namespace

// "ADDRESSES PERMISSIONS OFFSET MAJOR:MINOR INODE PATH", the device in hexadecimal digits.
bool maps_file(FILE *table, const FileIdentity &file, bool is_on_overlay) {
    char line[line_size];
    while (fgets(line, sizeof(line), table) != nullptr) {
        unsigned int major_number = 0;
        unsigned int minor_number = 0;
        uint64_t inode = 0;
        if (sscanf(line, "%*s %*s %*s %x:%x %" SCNu64, &major_number, &minor_number, &inode) != 3)
            continue;
        if (inode == file.inode &&
            (is_on_overlay || makedev(major_number, minor_number) == file.device))
            return true;
    }
    return ferror(table) != 0 && errno != ESRCH;
}

// "ID PARENT MAJOR:MINOR ...", all in decimal digits.
bool find_device_of_mount(FILE *table, uint64_t mount_id, dev_t &device) {
    char line[line_size];
    while (fgets(line, sizeof(line), table) != nullptr) {
        unsigned int major_number = 0;
        unsigned int minor_number = 0;
        uint64_t id = 0;
        if (sscanf(line, "%" SCNu64 " %*s %u:%u", &id, &major_number, &minor_number) == 3 &&
            id == mount_id)
            device = makedev(major_number, minor_number);
    }
    return ferror(table) == 0;
}
