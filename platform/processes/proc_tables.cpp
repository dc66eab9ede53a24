#include "platform/processes/proc_tables.h"

#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sys/sysmacros.h>

namespace {

constexpr int line_size = 32 << 10; // longer than the longest, that of a path full of escapes

bool is_last_component(const char *path, const std::string &name) {
    const char *slash = strrchr(path, '/');
    return slash != nullptr && slash + 1 == name + "\n";
}

} // namespace

unique_file open_table(int at, const std::string &name) {
    unique_fd fd(openat(at, name.c_str(), O_RDONLY | O_CLOEXEC));
    unique_file table(fd ? fdopen(fd.get(), "r") : nullptr);
    if (table != nullptr)
        fd.release();
    return table;
}

// "ADDRESSES PERMISSIONS OFFSET MAJOR:MINOR INODE PATH", the device in hexadecimal digits.
bool maps_file(FILE *table, const file_identity &file, const std::string &overlay_name) {
    char line[line_size];
    while (fgets(line, sizeof(line), table) != nullptr) {
        unsigned int major_number = 0;
        unsigned int minor_number = 0;
        uint64_t inode = 0;
        if (sscanf(line, "%*s %*s %*s %x:%x %" SCNu64, &major_number, &minor_number, &inode) != 3)
            continue;
        const bool is_same_inode = inode == file.inode;
        if (overlay_name.empty()
                ? is_same_inode && makedev(major_number, minor_number) == file.device
                : is_same_inode || is_last_component(line, overlay_name))
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
