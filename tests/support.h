// What the tests share: a temporary tree, its picture as text, and what was written to standard
// error.
#ifndef TESTS_SUPPORT_H
#define TESTS_SUPPORT_H

#include "compat/handles.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <sys/mman.h>
#include <sys/prctl.h>
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
    std::vector<std::string> lines;
    for (const auto &item : fs::recursive_directory_iterator(root)) {
        const std::string name = item.path().lexically_relative(root).string();
        if (item.is_symlink())
            lines.push_back(name + " -> " + fs::read_symlink(item.path()).string());
        else if (item.is_directory())
            fs::is_empty(item) ? lines.push_back(name + "/") : void();
        else
            lines.push_back(name + "=" + (item.is_regular_file() ? read_file(item.path()) : "?"));
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string &line : lines)
        text += line + "\n";
    return text;
}

inline std::string replaced(std::string text, const std::string &what, const std::string &by) {
    for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += by.size())
        text.replace(at, what.size(), by);
    return text;
}

// The paragraphs of a case file, but for the first, which says what its marks mean: for each mark
// that begins a line, what follows the mark and a blank in all its lines, escapes replaced.
inline std::vector<std::map<char, std::string>>
read_cases(const fs::path &path, const std::vector<std::pair<std::string, std::string>> &escapes) {
    std::vector<std::map<char, std::string>> cases;
    std::ifstream file(path);
    bool in_case = false;
    for (std::string line; std::getline(file, line); in_case = !line.empty()) {
        if (line.empty())
            continue;
        if (!in_case)
            cases.emplace_back();
        for (const auto &[what, by] : escapes)
            line = replaced(line, what, by);
        cases.back()[line[0]] += line.substr(std::min<size_t>(2, line.size())) + "\n";
    }
    cases.erase(cases.begin());
    return cases;
}

inline size_t open_descriptors() {
    const fs::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
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
    captured_output(const captured_output &) = delete;
    captured_output &operator=(const captured_output &) = delete;
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

// A child that runs a function and stays until it is destroyed.
class child_process {
public:
    template<typename Start> explicit child_process(Start start) {
        int ready[2];
        if (pipe2(ready, O_CLOEXEC) != 0)
            abort();
        pid = fork();
        if (pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL); // also where the test is ended from outside
            start();
            close(ready[1]);
            close(ready[0]);
            for (;;)
                pause();
        }
        close(ready[1]);
        char none = 0;
        while (read(ready[0], &none, 1) < 0) {
        } // the end of the pipe: start() has returned
        close(ready[0]);
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
