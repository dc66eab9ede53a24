// What the tests share: a temporary tree, its picture as text, and what was written to standard
// error.
#ifndef TESTS_SUPPORT_H
#define TESTS_SUPPORT_H

#include "base/handles.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <numeric>
#include <set>
#include <sstream>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <vector>

namespace fs = std::filesystem;

inline std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Makes the folders that lead to the file.
inline void write_file(const fs::path &path, const std::string &text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

// Every file below a folder, sorted, one a line: "name=content", a link "name -> text"; of the
// folders the empty ones, "name/".
inline std::string tree_of(const fs::path &root) {
    std::set<std::string> lines;
    for (const auto &item : fs::recursive_directory_iterator(root)) {
        const std::string name = item.path().lexically_relative(root).string();
        if (item.is_symlink())
            lines.insert(name + " -> " + fs::read_symlink(item.path()).string() + "\n");
        else if (!item.is_directory())
            lines.insert(name + "=" + (item.is_regular_file() ? read_file(item.path()) : "?") +
                         "\n");
        else if (fs::is_empty(item))
            lines.insert(name + "/\n");
    }
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

inline std::string replaced(std::string text, const std::string &what, const std::string &by) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

// Paths with their contents: "-> TEXT" is a symbolic link, a path that ends in a slash a folder.
using file_tree = std::vector<std::pair<std::string, std::string>>;

inline void make_tree(const fs::path &root, const file_tree &files) {
    for (const auto &[name, content] : files) {
        fs::create_directories((root / name).parent_path());
        if (content.compare(0, 3, "-> ") == 0)
            fs::create_symlink(content.substr(3), root / name);
        else if (name.back() != '/')
            write_file(root / name, content);
    }
}

// What tree_of shows of such a tree.
inline std::string picture(const file_tree &files) {
    std::set<std::string> lines;
    for (const auto &[name, content] : files)
        lines.insert(name +
                     (name.back() == '/'                  ? ""
                      : content.compare(0, 3, "-> ") == 0 ? " " + content
                                                          : "=" + content) +
                     "\n");
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

inline size_t open_descriptors() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

// A socket that is bound to a name. Nobody listens yet.
inline unique_fd bound_socket(const std::string &path, int type) {
    unique_fd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, ""};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    if (bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0)
        abort();
    return fd;
}

// A new folder, removed with all that is in it.
class temporary_tree {
public:
    explicit temporary_tree(const fs::path &where = fs::temp_directory_path()) {
        std::string name = (where / "watch-folder-test-XXXXXX").string();
        root = mkdtemp(name.data());
    }
    temporary_tree(const temporary_tree &) = delete;
    temporary_tree &operator=(const temporary_tree &) = delete;
    ~temporary_tree() { fs::remove_all(root); }

    fs::path operator/(const std::string &name) const { return root / name; }

    fs::path root;
};

// Takes what goes to a descriptor, standard error by default, until it is destroyed.
class captured_output {
public:
    explicit captured_output(int fd = STDERR_FILENO)
        : fd_(fd), saved_(dup(fd)), memory_(memfd_create("captured", MFD_CLOEXEC)) {
        fflush(nullptr);
        dup2(memory_.get(), fd_);
    }
    ~captured_output() { dup2(saved_.get(), fd_); }

    std::string text() const {
        fflush(nullptr);
        return read_file("/proc/self/fd/" + std::to_string(memory_.get()));
    }

private:
    int fd_;
    unique_fd saved_;
    unique_fd memory_;
};

// A child that runs a function, or what that executes, and stays until it is destroyed.
class child_process {
public:
    template<typename Start> explicit child_process(Start start) {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0)
            abort();
        const unique_fd reader(ready[0]);
        unique_fd writer(ready[1]);
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // also where the test is ended from outside
            start();
            writer.reset();
            for (;;)
                pause();
        }
        writer.reset();
        char none = 0;
        while (read(reader.get(), &none, 1) < 0) {
        } // the end of the pipe: start() has returned
    }
    child_process(const child_process &) = delete;
    child_process &operator=(const child_process &) = delete;
    ~child_process() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    pid_t pid;
};

#endif
