#include "delivery/item_context.h"

#include <cstddef>
#include <fcntl.h>

// The library is compiled apart: this header must keep its layout.
static_assert(offsetof(metadata_v4_context, dir_path) == 0 &&
                  offsetof(metadata_v4_context, dir_fd) == 8 &&
                  offsetof(metadata_v4_context, file_name) == 16 &&
                  offsetof(metadata_v4_context, file_fd) == 24 &&
                  offsetof(metadata_v4_context, metadir_name) == 32 &&
                  offsetof(metadata_v4_context, metadir_fd) == 40 &&
                  offsetof(metadata_v4_context, flags) == 44,
              "layout of metadata_v4_context");

ItemContext::ItemContext() : context_(metadata_v4_context_create()) {
    set_create_metadata_dir(false);
}

ItemContext::~ItemContext() {
    close_file_handles();
    metadata_v4_context_destroy(context_);
}

bool ItemContext::set_file_location(const std::string &path) {
    return context_ != nullptr &&
           metadata_v4_context_set_file_location(context_, path.c_str()) == 0;
}

bool ItemContext::open_directory() {
    if (context_ == nullptr)
        return false;
    if (context_->dir_fd >= 0)
        return true;
    if (context_->dir_path == nullptr)
        return false;
    context_->dir_fd = open(context_->dir_path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return context_->dir_fd >= 0;
}

bool ItemContext::open_the_file() {
    return context_ != nullptr && metadata_v4_context_open_the_file(context_) == 0;
}

bool ItemContext::open_metadata_dir() {
    if (dir_fd() < 0)
        return false;
    if (context_->metadir_fd >= 0)
        return true;
    if (context_->metadir_name == nullptr)
        return false;
    context_->metadir_fd = openat(context_->dir_fd, context_->metadir_name,
                                  O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    return context_->metadir_fd >= 0;
}

bool ItemContext::open_file_handles() {
    return context_ != nullptr && metadata_v4_context_open_file_handles(context_) == 0;
}

void ItemContext::close_file_handles() {
    if (context_ != nullptr)
        metadata_v4_context_close_file_handles(context_);
}

void ItemContext::set_create_metadata_dir(bool create) {
    if (context_ == nullptr)
        return;
    context_->flags = static_cast<uint8_t>(create ? context_->flags | METADATA_V4_CREATE_METADIR
                                                  : context_->flags & ~METADATA_V4_CREATE_METADIR);
}
