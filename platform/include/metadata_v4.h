// Metadata of media items: names, locations and the name/value list of an item.
//
// A media item is a file plus a metadata directory beside it: that of news.mxf is
// .news.mxf.metadir. The directory holds the file "metadata", one entry a line, name=value, with
// the escapes \\ and \n and, in a name, \=. A line without an unescaped "=" is an entry without
// value, one that begins with "=" an entry without name. A line with a NUL byte is an entry with
// neither, since texts end at NUL.
//
// Owns:   a context owns its texts and descriptors, a list its entries; both end with their
//         destroy.
// Errors: functions that return int give a negative number, unless they say otherwise. Those
//         that read or change a list throw std::bad_alloc.
// Prints: nothing.
//
// Whoever can write into a watch folder can plant anything there. Nothing here follows a symbolic
// link at a metadata directory, a metadata file or a temporary file, waits for a FIFO, or writes
// through a name that it did not create itself.
//
// Reserved arguments, flags and the lengths of texts must be 0 or null, but for the last argument
// of the name/value calls, which must be -1.
#ifndef PLATFORM_INCLUDE_METADATA_V4_H
#define PLATFORM_INCLUDE_METADATA_V4_H

#include <stddef.h>
#include <stdint.h>

extern "C" {

// With this flag, metadata_v4_context_open_file_handles makes a missing metadata directory.
#define METADATA_V4_CREATE_METADIR 0x20

// One file location. Callers may open dir_fd and metadir_fd themselves; the context closes them.
typedef struct metadata_v4_context {
    char *dir_path; // null while no location is set
    int32_t dir_fd; // negative while not open, like the other two
    char *file_name;
    int32_t file_fd;    // O_PATH: does not count as an open
    char *metadir_name; // null where the file name is too long to have a metadata directory
    int32_t metadir_fd;
    uint8_t flags;
    // The library's own: the directory that dir_fd was when the file was first opened in it.
    uint64_t dir_device;
    uint64_t dir_inode;
} metadata_v4_context;

// One list of entries.
typedef struct metadata_v4_metadata_context {
    void *reserved_first;
    uint64_t entry_count;
    void *reserved[4];
    // Of the metadata directory, borrowed from the context. Negative while not bound.
    int32_t descriptor;
} metadata_v4_metadata_context;

// One entry; either text may be null. Valid until the next call with the list.
typedef struct metadata_v4_metadata_entry {
    char *name;
    char *value;
} metadata_v4_metadata_entry;

// Map the last component of a path and keep its directory part. 0 on success. They fail for a path
// without a last component (empty, ends in "/", "." or ".."), for a metadata directory name over
// 255 bytes, for a buffer that is too small and, in the second, for what is no such name.
int metadata_v4_file_to_metadir(char *buffer, size_t size, const char *path);
int metadata_v4_metadir_to_file(char *buffer, size_t size, const char *path);

// 1 when the last component of name is a metadata directory name, else 0.
int metadata_v4_context_is_metadata_name(const char *name);

// A context without location, or null when out of memory.
metadata_v4_context *metadata_v4_context_create(void);

// Closes the handles and releases the context, which may be null.
void metadata_v4_context_destroy(metadata_v4_context *context);

// Splits path, for a context without location. Opens nothing and does not need the file to exist.
// On failure (no last component, out of memory) the context has no location.
int metadata_v4_context_set_file_location(metadata_v4_context *context, const char *path);

// Opens the file in the opened directory with O_PATH, without following a symbolic link. Fails if
// the open directory is not the one in which this file was first opened.
int metadata_v4_context_open_the_file(metadata_v4_context *context);

// Opens the directory, the file, as above, and the metadata directory; none may be open.
// Fails when the file is not there; it then makes nothing. A directory that is made belongs to the
// user of the process, and is readable to whom the file is, less the umask. What was opened before
// a failure stays open.
int metadata_v4_context_open_file_handles(metadata_v4_context *context);

// Closes every descriptor in the context. Keeps errno.
void metadata_v4_context_close_file_handles(metadata_v4_context *context);

// An empty, unbound list, or null when out of memory.
metadata_v4_metadata_context *metadata_v4_metadata_context_create(void);

// Releases the list, which may be null.
void metadata_v4_metadata_context_destroy(metadata_v4_metadata_context *list);

// Replaces the entries by those of the item, whose metadata directory must be open in the context.
// for_writing 0: fails when there is no metadata file. for_writing 1: binds the list to the
// metadata directory, and a missing file is an empty list. A metadata file that is not a regular
// file, is larger than 1 MiB or cannot be read is a failure either way. A failure leaves the list
// empty and unbound, so that nothing is overwritten.
int metadata_v4_metadata_context_load_metadata_from_file(metadata_v4_metadata_context *list,
                                                         metadata_v4_context *context,
                                                         int for_writing, void *reserved);

// Replaces the metadata file of the context to which the list is bound: at every instant, a crash
// included, the old or the new one is there, whole. Entries that were not changed are written as
// they were read. An existing file's mode and access list are kept, and its owner, group and user
// attributes where they may be set; where the list may not, the group loses its rights. A new file
// takes mode, owner and group from the directory. On failure the old file stands and no temporary
// file is left.
int metadata_v4_metadata_context_write_metadata_to_file(metadata_v4_metadata_context *list,
                                                        metadata_v4_context *context, int flags,
                                                        void *reserved);

// The entry at an index, or null.
metadata_v4_metadata_entry *
metadata_v4_metadata_context_read_entry(metadata_v4_metadata_context *list, uint64_t index);

// Change the entry that was read last, or add one at the end. The name must not be empty.
int metadata_v4_metadata_context_set_name_value_pair(metadata_v4_metadata_context *list,
                                                     metadata_v4_metadata_entry *entry,
                                                     const char *name, size_t name_length,
                                                     const char *value, size_t value_length,
                                                     int reserved);
int metadata_v4_metadata_context_add_name_value_pair(metadata_v4_metadata_context *list,
                                                     const char *name, size_t name_length,
                                                     const char *value, size_t value_length,
                                                     int reserved);
}

#endif
