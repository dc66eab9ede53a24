#include "platform/metadata/file.h"

#include "base/handles.h"

#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char metadata_name[] = "metadata";
constexpr char temporary_name[] = ".metadata.new";
constexpr size_t piece_size = size_t{16} << 10;

bool fail(int error) {
    errno = error;
    return false;
}

bool read_all(int fd, std::string &text) {
    char piece[piece_size];
    ssize_t count = 0;
    while ((count = TEMP_FAILURE_RETRY(read(fd, piece, sizeof(piece)))) > 0) {
        text.append(piece, static_cast<size_t>(count));
        if (text.size() > metadata_size_limit)
            return fail(EFBIG);
    }
    return count == 0;
}

bool write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = TEMP_FAILURE_RETRY(write(fd, text.data() + done, text.size() - done));
        if (count <= 0)
            return false;
        done += static_cast<size_t>(count);
    }
    return true;
}

// Creates a file that nobody else had a hand in, in place of what a crash left.
unique_fd create_temporary(int metadir_fd) {
    unlinkat(metadir_fd, temporary_name, 0);
    return unique_fd(openat(metadir_fd, temporary_name,
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

// What may not be changed stays as it is.
bool set_owner(int fd, const file_owner &owner) {
    struct stat status {};
    // The mode first: it belongs to the owner to change.
    if (fstat(fd, &status) != 0 || (fchmod(fd, owner.mode) != 0 && errno != EPERM))
        return false;
    const bool differs = status.st_uid != owner.uid || status.st_gid != owner.gid;
    return !differs || fchown(fd, owner.uid, owner.gid) == 0 || errno == EPERM;
}

} // namespace

bool read_metadata_file(int metadir_fd, std::string &text, file_owner &owner) {
    const unique_fd fd(openat(metadir_fd, metadata_name,
                              O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    const bool is_absent = !fd && errno == ENOENT;
    struct stat status {};
    if ((!fd && !is_absent) || fstat(is_absent ? metadir_fd : fd.get(), &status) != 0)
        return false;
    // A new file is readable to whom its directory is.
    owner = {status.st_mode & (is_absent ? 0644 : 0777), status.st_uid, status.st_gid};
    if (is_absent)
        return fail(ENOENT);
    return S_ISREG(status.st_mode) ? read_all(fd.get(), text) : fail(EINVAL);
}

bool replace_metadata_file(int metadir_fd, const std::string &text, const file_owner &owner) {
    if (text.size() > metadata_size_limit)
        return false; // it could never be read again
    const unique_fd fd = create_temporary(metadir_fd);
    if (!fd)
        return false;
    if (!set_owner(fd.get(), owner) || !write_all(fd.get(), text) ||
        TEMP_FAILURE_RETRY(fsync(fd.get())) != 0 ||
        renameat(metadir_fd, temporary_name, metadir_fd, metadata_name) != 0) {
        unlinkat(metadir_fd, temporary_name, 0);
        return false;
    }
    // A file system that cannot sync a directory says so with EINVAL; there is nothing more to do.
    return TEMP_FAILURE_RETRY(fsync(metadir_fd)) == 0 || errno == EINVAL;
}
