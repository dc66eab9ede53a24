#include "platform/include/metadata_v4.h"

#include "base/handles.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sys/stat.h>
#include <utility>

namespace {

void close_one(int32_t &fd) {
    unique_fd(std::exchange(fd, -1)).reset();
}

void forget_location(metadata_v4_context *context) {
    metadata_v4_context_close_file_handles(context);
    for (char **text : {&context->dir_path, &context->file_name, &context->metadir_name})
        free(std::exchange(*text, nullptr));
    context->dir_device = context->dir_inode = 0;
}

// Keeps in mind which directory the location led to at first.
void remember_directory(metadata_v4_context *context) {
    struct stat status {};
    if (context->dir_inode == 0 && fstat(context->dir_fd, &status) == 0) {
        context->dir_device = status.st_dev;
        context->dir_inode = status.st_ino;
    }
}

// Links are followed: a target may be configured through one. But whoever can change a folder on
// the way can also have it lead elsewhere between two openings, past what was validated at the
// first.
bool open_location(metadata_v4_context *context) {
    context->dir_fd = open(context->dir_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    struct stat status {};
    if (context->dir_fd < 0 || context->dir_inode == 0)
        return context->dir_fd >= 0;
    if (fstat(context->dir_fd, &status) == 0 && context->dir_inode == status.st_ino &&
        context->dir_device == status.st_dev)
        return true;
    close_one(context->dir_fd);
    errno = ESTALE;
    return false;
}

int open_directory_at(int at, const char *name) {
    return openat(at, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

} // namespace

metadata_v4_context *metadata_v4_context_create(void) {
    auto *context = static_cast<metadata_v4_context *>(calloc(1, sizeof(metadata_v4_context)));
    if (context != nullptr)
        context->dir_fd = context->file_fd = context->metadir_fd = -1;
    return context;
}

void metadata_v4_context_destroy(metadata_v4_context *context) {
    if (context == nullptr)
        return;
    forget_location(context);
    free(context);
}

int metadata_v4_context_set_file_location(metadata_v4_context *context, const char *path) {
    forget_location(context);
    const char *slash = strrchr(path, '/');
    const char *name = slash == nullptr ? path : slash + 1;
    if (*name == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0) {
        errno = EINVAL;
        return -1;
    }
    // "/name" lies in "/", a bare name in the working directory.
    context->dir_path = slash == nullptr ? strdup(".")
                        : slash == path  ? strdup("/")
                                         : strndup(path, static_cast<size_t>(slash - path));
    context->file_name = strdup(name);
    char metadir[NAME_MAX + 1];
    const bool has_metadir = metadata_v4_file_to_metadir(metadir, sizeof(metadir), name) >= 0;
    if (has_metadir)
        context->metadir_name = strdup(metadir);
    if (context->dir_path == nullptr || context->file_name == nullptr ||
        (has_metadir && context->metadir_name == nullptr)) {
        forget_location(context);
        errno = ENOMEM;
        return -1;
    }
    return 0;
}

int metadata_v4_context_open_the_file(metadata_v4_context *context) {
    if (context->file_name == nullptr || context->dir_fd < 0) {
        errno = EBADF;
        return -1;
    }
    close_one(context->file_fd);
    remember_directory(context);
    // O_PATH: no device is opened, no FIFO waited for, and nobody sees a file in use because of it.
    context->file_fd = openat(context->dir_fd, context->file_name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    return context->file_fd < 0 ? -1 : 0;
}

int metadata_v4_context_open_file_handles(metadata_v4_context *context) {
    metadata_v4_context_close_file_handles(context);
    if (context->dir_path == nullptr || context->metadir_name == nullptr) {
        errno = EINVAL;
        return -1;
    }
    if (!open_location(context) || metadata_v4_context_open_the_file(context) < 0)
        return -1;
    context->metadir_fd = open_directory_at(context->dir_fd, context->metadir_name);
    if (context->metadir_fd < 0 && errno == ENOENT &&
        (context->flags & METADATA_V4_CREATE_METADIR) != 0 &&
        mkdirat(context->dir_fd, context->metadir_name, 0755) == 0)
        context->metadir_fd = open_directory_at(context->dir_fd, context->metadir_name);
    return context->metadir_fd < 0 ? -1 : 0;
}

void metadata_v4_context_close_file_handles(metadata_v4_context *context) {
    close_one(context->metadir_fd);
    close_one(context->file_fd);
    close_one(context->dir_fd);
}
