// What the disk says about an entry, collected the way in which the service opens its directories,
// and what of that would keep the entry from working, or surprise its owner. The rules decide over
// the facts alone; main_path has to be set where the main storage is there.
//
// Errors: an operation that failed is a fact; its errno is kept.
// Prints: the rules print findings.
#ifndef CHECK_ENTRY_RULES_H
#define CHECK_ENTRY_RULES_H

#include "config/watch_entry.h"

#include <cerrno>
#include <cstdint>
#include <string>
#include <sys/types.h>

struct directory_facts {
    std::string configured;
    std::string name;        // what the lines call it: "watch path '/mnt/main/Upload/News'"
    int open_error = ENOENT; // 0 when it could be opened; only then is the rest set
    std::string path;        // where it really is
    dev_t device = 0;        // of its file system
    ino_t inode = 0;
    uint64_t mount = 0;     // which of the mounts; the same for all where the kernel does not tell
    unsigned long type = 0; // of the file system, as in linux/magic.h
    int rename_error = 0;   // errno where names in it cannot be changed
};

struct known_entry {
    const WatchEntry *entry; // of the registry
    directory_facts watch, target, archive;
    std::string target_name; // empty when the target's path ends in no name
    mode_t target_mode = 0;  // 0 when nothing stands at the target
};

inline bool is_same_directory(const directory_facts &a, const directory_facts &b) {
    return a.open_error == 0 && b.open_error == 0 && a.device == b.device && a.inode == b.inode;
}

// The errno with which the user may not rename in an opened directory; 0 when it may.
int rename_error_of(int fd);

// A directory by its path, which is followed through symbolic links.
directory_facts collect_directory_facts(const char *what, const std::string &path);

// Opens and closes what the entry names. Changes nothing, and holds no descriptor afterwards.
known_entry collect_facts(const WatchEntry &entry);

// Reports what is wrong with the entry taken alone. Without main storage, what lies below it is not
// judged.
void judge_entry(const known_entry &known);

// Reports what is wrong with the later of two entries that a pass visits.
void judge_pair(const known_entry &earlier, const known_entry &later);

#endif
