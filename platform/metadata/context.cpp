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
    UniqueFd(std::exchange(fd, -1)).reset();
}

// Is the opened directory the one that the file of this location was first opened in? Links on the
// way are followed: a target may be configured through one. But whoever can change a folder on the
// way can also have it lead elsewhere between two openings, past what was validated at the first.
bool check_directory(metadata_v4_context *context) {
    struct stat status {};
    if (fstat(context->dir_fd, &status) != 0)
        return false;
    if (context->dir_inode == 0) {
        context->dir_device = status.st_dev;
        context->dir_inode = status.st_ino;
    }
    return context->dir_device == status.st_dev && context->dir_inode == status.st_ino;
}

bool open_metadir(metadata_v4_context *context) {
    context->metadir_fd = openat(context->dir_fd, context->metadir_name,
                                 O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    return context->metadir_fd >= 0;
}

// Makes the metadata directory, readable to whom the file is. Its owner stays that of the process:
// by the time it is opened, somebody may have put another directory under the name.
bool make_metadir(const metadata_v4_context *context) {
    struct stat file {};
    if (fstat(context->file_fd, &file) != 0)
        return false;
    const mode_t readers = file.st_mode & (S_IRGRP | S_IROTH);
    const mode_t mode = S_IRWXU | readers | (readers >> 2);
    return mkdirat(context->dir_fd, context->metadir_name, mode) == 0;
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
    metadata_v4_context_close_file_handles(context);
    for (char *text : {context->dir_path, context->file_name, context->metadir_name})
        free(text);
    free(context);
}

int metadata_v4_context_set_file_location(metadata_v4_context *context, const char *path) {
    const char *slash = strrchr(path, '/');
    const char *name = slash == nullptr ? path : slash + 1;
    char metadir[NAME_MAX + 1];
    const bool has_metadir = metadata_v4_file_to_metadir(metadir, sizeof(metadir), name) >= 0;
    if (*name == '\0' || strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
        return -1; // no last component
    // "/name" lies in "/", a bare name in the working directory.
    context->dir_path = slash == nullptr ? strdup(".")
                        : slash == path  ? strdup("/")
                                         : strndup(path, static_cast<size_t>(slash - path));
    context->file_name = strdup(name);
    if (has_metadir)
        context->metadir_name = strdup(metadir);
    if (context->dir_path == nullptr || context->file_name == nullptr ||
        (has_metadir && context->metadir_name == nullptr)) {
        free(std::exchange(context->dir_path, nullptr));
        return -1;
    }
    return 0;
}

int metadata_v4_context_open_the_file(metadata_v4_context *context) {
    if (!check_directory(context))
        return -1;
    // O_PATH: no device is opened, no FIFO waited for, and it does not count as an open.
    context->file_fd = openat(context->dir_fd, context->file_name, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    return context->file_fd < 0 ? -1 : 0;
}

int metadata_v4_context_open_file_handles(metadata_v4_context *context) {
    if (context->metadir_name == nullptr)
        return -1;
    context->dir_fd = open(context->dir_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (context->dir_fd < 0 || metadata_v4_context_open_the_file(context) < 0)
        return -1;
    if (open_metadir(context))
        return 0;
    const bool may_be_made = errno == ENOENT && (context->flags & METADATA_V4_CREATE_METADIR) != 0;
    return may_be_made && make_metadir(context) && open_metadir(context) ? 0 : -1;
}

void metadata_v4_context_close_file_handles(metadata_v4_context *context) {
    close_one(context->metadir_fd);
    close_one(context->file_fd);
    close_one(context->dir_fd);
}
