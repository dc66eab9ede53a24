// The holder of one file location: its directory, its file, its metadata directory, their
// descriptors.
//
// Owns:   the library's context, and through it every descriptor stored there.
// Errors: operations return false; none throws. A holder without a context acts as if nothing were
//         there.
#ifndef DELIVERY_ITEM_CONTEXT_H
#define DELIVERY_ITEM_CONTEXT_H

#include "platform/include/metadata_v4.h"

#include <string>

class ItemContext {
public:
    ItemContext();
    ItemContext(const ItemContext &) = delete;
    ItemContext &operator=(const ItemContext &) = delete;
    ~ItemContext();

    bool set_file_location(const std::string &path);
    bool open_directory();
    bool open_the_file();
    bool open_metadata_dir(); // in the opened directory; a symbolic link there is not followed
    bool open_file_handles();
    void close_file_handles();

    // With it set, open_file_handles makes a missing metadata directory.
    void set_create_metadata_dir(bool create);

    const char *dir_path() const { return context_ == nullptr ? nullptr : context_->dir_path; }
    const char *file_name() const { return context_ == nullptr ? nullptr : context_->file_name; }
    int dir_fd() const { return context_ == nullptr ? -1 : context_->dir_fd; }
    int metadir_fd() const { return context_ == nullptr ? -1 : context_->metadir_fd; }

    // The library's own record, null when it could not be created.
    metadata_v4_context *get() const { return context_; }

private:
    metadata_v4_context *context_;
};

#endif
