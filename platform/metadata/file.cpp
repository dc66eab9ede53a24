#include "platform/metadata/file.h"

#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <linux/limits.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace {

constexpr char metadata_name[] = "metadata";
constexpr char temporary_name[] = ".metadata.new";
constexpr char access_list[] = "system.posix_acl_access";
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
UniqueFd create_temporary(int metadir_fd) {
    unlinkat(metadir_fd, temporary_name, 0);
    return UniqueFd(openat(metadir_fd, temporary_name,
                           O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
}

// An opening is refused while somebody else, a file server say, has a lease on the file. The kernel
// then asks for it back.
UniqueFd open_metadata(int metadir_fd) {
    for (int refusals = 0;; ++refusals) {
        UniqueFd file(openat(metadir_fd, metadata_name,
                             O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
        if (file || errno != EWOULDBLOCK || refusals == 3)
            return file;
        const timespec wait{0, 10000000};
        nanosleep(&wait, nullptr);
    }
}

// Copies the access list, and the attributes of users as far as they may be set. True when the new
// file has the list of the old one, or none as that.
bool copy_attributes(int from, int to) {
    char names[XATTR_LIST_MAX];
    char value[XATTR_SIZE_MAX];
    const ssize_t length = flistxattr(from, names, sizeof(names));
    bool has_list = length >= 0 || errno == ENOTSUP;
    fremovexattr(to, access_list); // one that it got from its directory
    for (const char *name = names; name < names + length; name += strlen(name) + 1) {
        const bool is_list = strcmp(name, access_list) == 0;
        if (!is_list && strncmp(name, "user.", 5) != 0)
            continue;
        const ssize_t size = fgetxattr(from, name, value, sizeof(value));
        if (size < 0 || fsetxattr(to, name, value, static_cast<size_t>(size), 0) != 0)
            has_list = has_list && !is_list;
    }
    return has_list;
}

// Gives the new file the rights of the old one. Where there is none, it is readable to whom the
// directory is. What may not be changed stays as it is.
bool set_access(int fd, int metadir_fd, const UniqueFd &old_file) {
    struct stat model {};
    struct stat status {};
    if (fstat(old_file ? old_file.get() : metadir_fd, &model) != 0 || fstat(fd, &status) != 0)
        return false;
    mode_t mode = model.st_mode & (old_file ? 0777 : 0644);
    // Without the access list, the rights of the group would be those of all who are on it.
    if (old_file && !copy_attributes(old_file.get(), fd))
        mode &= ~static_cast<mode_t>(S_IRWXG);
    // The mode first: it belongs to the owner to change.
    if (fchmod(fd, mode) != 0 && errno != EPERM)
        return false;
    const bool differs = status.st_uid != model.st_uid || status.st_gid != model.st_gid;
    return !differs || fchown(fd, model.st_uid, model.st_gid) == 0 || errno == EPERM;
}

} // namespace

bool read_metadata_file(int metadir_fd, UniqueFd &file, std::string &text) {
    file = open_metadata(metadir_fd);
    struct stat status {};
    if (!file || fstat(file.get(), &status) != 0)
        return false;
    return S_ISREG(status.st_mode) ? read_all(file.get(), text) : fail(EINVAL);
}

bool replace_metadata_file(int metadir_fd, const UniqueFd &old_file, const std::string &text) {
    if (text.size() > metadata_size_limit)
        return false; // it could never be read again
    const UniqueFd fd = create_temporary(metadir_fd);
    if (!fd)
        return false;
    if (!set_access(fd.get(), metadir_fd, old_file) || !write_all(fd.get(), text) ||
        TEMP_FAILURE_RETRY(fsync(fd.get())) != 0 ||
        renameat(metadir_fd, temporary_name, metadir_fd, metadata_name) != 0) {
        unlinkat(metadir_fd, temporary_name, 0);
        return false;
    }
    // A file system that cannot sync a directory says so with EINVAL; there is nothing more to do.
    return TEMP_FAILURE_RETRY(fsync(metadir_fd)) == 0 || errno == EINVAL;
}
