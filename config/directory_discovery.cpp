#include "config/directory_discovery.h"

#include "base/diagnostics.h"

#include <boost/filesystem.hpp>

namespace {

// Reports the first failure of a build only.
void make_play_folder(const std::string &play_root, bool &failed) {
    try {
        boost::filesystem::create_directory(play_root);
    } catch (const boost::filesystem::filesystem_error &error) {
        if (!failed)
            diag("Warning: cannot create '%s', %s\n", play_root.c_str(),
                 error.code().message().c_str());
        failed = true;
    }
}

} // namespace

WatchRegistry build_directory_configuration(const std::string &dir) {
    return discover_watch_folders(dir + "/Upload/", dir + "/Play/");
}

WatchRegistry discover_watch_folders(const std::string &upload_root, const std::string &play_root) {
    WatchRegistry result;
    unsigned int n = 0;
    bool play_failed = false;
    try {
        for (const auto &item : boost::filesystem::directory_iterator(upload_root)) {
            const std::string file_name = item.path().filename().string();
            const std::string name = "event" + std::to_string(n++);
            WatchEntry entry;
            entry.name = name;
            entry.watch_path = upload_root + file_name;
            entry.target_file = play_root + file_name;
            entry.patterns.emplace_back("");
            // Once for every item: a play folder that disappears meanwhile is made again.
            make_play_folder(play_root, play_failed);
            result[name] = std::move(entry);
        }
    } catch (const boost::filesystem::filesystem_error &error) {
        diag("Warning: cannot list '%s', %s\n", upload_root.c_str(),
             error.code().message().c_str());
    }
    return result;
}
