#include "platform/metadata/metadata_file.h"

#include "base/handles.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>

namespace {

constexpr char metadata_file_name[] = "metadata";
constexpr size_t temporary_name_size = 32;
constexpr int temporary_names = 16;

bool fail(int error) {
    errno = error;
    return false;
}

bool read_all(int fd, size_t size_hint, std::string &text) {
    size_t used = 0;
    text.resize(size_hint + 1); // one more than expected, so that the end is seen without growing
    for (;;) {
        const ssize_t count = TEMP_FAILURE_RETRY(read(fd, &text[used], text.size() - used));
        if (count < 0)
            return false;
        if (count == 0)
            break;
        used += static_cast<size_t>(count);
        if (used > metadata_size_limit)
            return fail(EFBIG);
        if (used == text.size())
            text.resize(used * 2);
    }
    text.resize(used);
    return true;
}

bool write_all(int fd, const std::string &text) {
    for (size_t done = 0; done < text.size();) {
        const ssize_t count = TEMP_FAILURE_RETRY(write(fd, text.data() + done, text.size() - done));
        if (count <= 0)
            return count < 0 ? false : fail(EIO);
        done += static_cast<size_t>(count);
    }
    return true;
}

// Creates a file that nobody else had a hand in and stores its name. What a crash left under the
// first name is removed; should something that cannot be removed stand there, further names are
// tried.
unique_fd create_temporary(int metadir_fd, char (&name)[temporary_name_size], mode_t mode) {
    for (int i = 0; i < temporary_names; ++i) {
        snprintf(name, sizeof(name), i == 0 ? ".metadata.new" : ".metadata.new.%d", i);
        for (int attempt = 0; attempt < 2; ++attempt) {
            unique_fd fd(openat(metadir_fd, name,
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
            if (fd || errno != EEXIST)
                return fd;
            if (unlinkat(metadir_fd, name, 0) != 0)
                break;
        }
    }
    errno = EEXIST;
    return unique_fd();
}

bool fill(int fd, const std::string &text, const metadata_file_owner &owner) {
    // The owner first: a change of owner takes mode bits away.
    if (owner.exists && (fchown(fd, owner.uid, owner.gid) != 0 || fchmod(fd, owner.mode) != 0))
        return false;
    return write_all(fd, text) && TEMP_FAILURE_RETRY(fsync(fd)) == 0;
}

} // namespace

bool read_metadata_file(int metadir_fd, std::string &text, metadata_file_owner &owner) {
    owner = {};
    const unique_fd fd(openat(metadir_fd, metadata_file_name,
                              O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat status {};
    if (!fd || fstat(fd.get(), &status) != 0)
        return false;
    if (!S_ISREG(status.st_mode))
        return fail(EINVAL);
    if (status.st_size > static_cast<off_t>(metadata_size_limit))
        return fail(EFBIG);
    owner = {true, status.st_mode & 0777, status.st_uid, status.st_gid};
    return read_all(fd.get(), static_cast<size_t>(status.st_size), text);
}

bool replace_metadata_file(int metadir_fd, const std::string &text,
                           const metadata_file_owner &owner) {
    if (text.size() > metadata_size_limit)
        return fail(EFBIG); // it could never be read again
    char temporary[temporary_name_size];
    unique_fd fd = create_temporary(metadir_fd, temporary, owner.exists ? 0600 : 0644);
    if (!fd)
        return false;
    if (!fill(fd.get(), text, owner) ||
        renameat(metadir_fd, temporary, metadir_fd, metadata_file_name) != 0) {
        const int saved = errno;
        unlinkat(metadir_fd, temporary, 0);
        errno = saved;
        return false;
    }
    // A file system that cannot sync a directory says so with EINVAL; there is nothing more to do.
    return TEMP_FAILURE_RETRY(fsync(metadir_fd)) == 0 || errno == EINVAL;
}
