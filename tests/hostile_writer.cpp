// Somebody with write access to a watch folder who means harm: swaps whatever the service opens,
// creates or renames there for links, FIFOs, sockets, devices, directories and files, as fast as
// it can.
//
// hostile_writer WATCH CANARY SWAPS SEED
//   WATCH is filled and swapped; links lead to CANARY, which holds news.mxf and more. Prints the
//   number of swaps done.
#include "base/handles.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <random>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <vector>

namespace fs = std::filesystem;

namespace {

std::mt19937 dice;

size_t roll(size_t sides) {
    return dice() % sides;
}

void make_socket(const std::string &path) {
    const unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    static_cast<void>(
        bind(fd.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)));
}

std::string any_text() {
    static const std::vector<std::string> texts = {"original filename=../../canary/stolen\n",
                                                   "original filename=..\nx=y\n",
                                                   std::string("nul\0=\0\n=\n\\\n", 10),
                                                   "original filename=%s%n%1000000d\n",
                                                   std::string(5000, '='),
                                                   ""};
    return texts[roll(texts.size())];
}

// Makes something under a fresh name, which then takes the place of the name that is attacked.
void make_anything(const std::string &path, const std::string &canary) {
    std::error_code ignored;
    switch (roll(9)) {
    case 0:
        fs::create_symlink(canary + "/news.mxf", path, ignored);
        break;
    case 1:
        fs::create_symlink(canary, path, ignored);
        break;
    case 2:
        mkfifo(path.c_str(), 0666);
        break;
    case 3:
        make_socket(path);
        break;
    case 4:
        mknod(path.c_str(), S_IFCHR | 0666, makedev(5, 0)); // the controlling terminal
        break;
    case 5:
        fs::create_symlink(path, path, ignored); // leads to itself
        break;
    case 6:
        fs::create_directory(path, ignored);
        std::ofstream(path + "/metadata") << any_text();
        break;
    case 7:
        fs::create_directory(path, ignored);
        fs::create_symlink(canary + "/.news.mxf.metadir/metadata", path + "/metadata", ignored);
        fs::create_symlink(canary + "/planted", path + "/.metadata.new", ignored);
        fs::create_symlink(canary + "/socket", path + "/.media.item.active.socket", ignored);
        break;
    default:
        std::ofstream(path) << any_text();
    }
}

// The names of the service's that lie in the watch folder, and those of a target below it.
const std::vector<std::string> names = {
    "clip.mxf",
    ".clip.mxf.metadir",
    ".clip.mxf.metadir/metadata",
    ".clip.mxf.metadir/.metadata.new",
    ".clip.mxf.metadir/.media.item.active.socket",
    "out/news.mxf",
    "out/.news.mxf.metadir",
    "out/.news.mxf.metadir/metadata",
    "out/.news.mxf.metadir/.metadata.new",
};

void swap_folder(const std::string &watch, const std::string &canary) {
    std::error_code ignored;
    if (fs::is_symlink(watch + "/out", ignored)) {
        fs::remove(watch + "/out", ignored);
        fs::rename(watch + "/real-out", watch + "/out", ignored);
    } else {
        fs::rename(watch + "/out", watch + "/real-out", ignored);
        fs::create_symlink(canary, watch + "/out", ignored);
    }
}

void swap_something(const std::string &watch, const std::string &canary) {
    std::error_code ignored;
    if (roll(8) == 0) {
        swap_folder(watch, canary);
        return;
    }
    // The writer itself must not reach the canary through what it planted before.
    const fs::path name = names[roll(names.size())];
    const bool is_hidden = fs::exists(fs::symlink_status(watch + "/real-out", ignored));
    std::string folder = watch + "/" + name.parent_path().string();
    if (is_hidden && name.begin()->string() == "out")
        folder.insert(watch.size() + 1, "real-");
    const unique_fd parent(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!parent)
        return;
    const std::string path =
        "/proc/self/fd/" + std::to_string(parent.get()) + "/" + name.filename().string();
    const std::string fresh = watch + "/.fresh";
    make_anything(fresh, canary);
    if (rename(fresh.c_str(), path.c_str()) != 0) {
        fs::remove_all(path, ignored);
        if (rename(fresh.c_str(), path.c_str()) != 0)
            fs::remove_all(fresh, ignored);
    }
    std::ofstream(watch + "/clip" + std::to_string(roll(3)) + ".mxf") << "media";
}

} // namespace

int main(int argc, char **argv) {
    if (argc != 5)
        return 2;
    const std::string watch = argv[1], canary = argv[2];
    const long swaps = strtol(argv[3], nullptr, 10);
    dice.seed(static_cast<unsigned int>(strtoul(argv[4], nullptr, 10)));
    for (long i = 0; i < swaps; ++i)
        swap_something(watch, canary);
    std::cout << swaps << " swaps\n";
}
