// The gate before every check: is the main storage there, and does a path lie below it?
//
// Prints: nothing.
#ifndef SERVICE_MAIN_STORAGE_H
#define SERVICE_MAIN_STORAGE_H

#include <string>

// Where /mnt/main really is; empty while it does not resolve.
extern std::string main_path;

// The canonical absolute path; empty when it does not resolve.
std::string realpath_string(const std::string &path);

// Resolves /mnt/main afresh into main_path.
void update_main_path();

// Does a canonical path lie strictly below main_path? Compares text only.
bool is_under_main_path(const char *path);
bool is_under_main_path(const std::string &path);

// The same for an opened directory, wherever it was opened through.
bool is_directory_under_main_path(int fd);

#endif
