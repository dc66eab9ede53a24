#include "platform/processes/mapping_query.h"

#include <cerrno>
#include <cstdint>
#include <sys/ioctl.h>
#include <sys/sysmacros.h>

namespace {

// PROCMAP_QUERY of the kernel's interface, which the headers of older systems lack.
struct mapping_query {
    uint64_t size; // of this record
    uint64_t flags;
    uint64_t address;
    uint64_t start, end, protection, page_size, offset;
    uint64_t inode; // 0 where no file is mapped
    uint32_t device_major, device_minor;
    uint32_t name_size, build_id_size; // 0: not asked for
    uint64_t name_address, build_id_address;
};

constexpr unsigned long query_request = _IOWR('f', 17, mapping_query);
constexpr uint64_t at_or_after_address = 0x10;
constexpr uint64_t files_only = 0x20;

} // namespace

std::optional<bool> query_mappings(int table, const file_identity &file,
                                   const file_identity &other) {
    mapping_query query{};
    query.size = sizeof(query);
    query.flags = at_or_after_address | files_only;
    while (ioctl(table, query_request, &query) == 0) {
        const file_identity mapped{makedev(query.device_major, query.device_minor), query.inode};
        if (mapped == file || mapped == other)
            return true;
        query.address = query.end;
    }
    if (errno == ENOENT || errno == ESRCH) // behind the last one; the process has ended
        return false;
    return std::nullopt;
}
