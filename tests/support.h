// What the tests share: rows, temporary trees, output, sockets, other
// processes.
#ifndef TESTS_SUPPORT_H
#define TESTS_SUPPORT_H

#include "base/handles.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <optional>
#include <regex>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

namespace fs = std::filesystem;

struct RowTest : testing::Test {
    explicit RowTest(std::function<void()> check) : check_row(std::move(check)) {}
    void TestBody() override { check_row(); }
    std::function<void()> check_row;
};

// A test for each row of an array, listed and run alone under the row's name.
template<typename Rows, typename Check>
bool register_rows(const char *suite, const Rows &rows, Check check) {
    for (const auto &row : rows) {
        const auto make = [&row, check]() -> testing::Test * {
            return new RowTest([&row, check] { check(row); });
        };
        testing::RegisterTest(suite, row.name, nullptr, nullptr, __FILE__, __LINE__, make);
    }
    return true;
}

inline std::string read_file(const fs::path &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// Writes a file, and makes the folders above it. The text "-> PATH" makes a
// symbolic link to PATH instead; a name that ends in a slash, an empty folder.
inline void write_file(const fs::path &path, const std::string &text) {
    fs::create_directories(fs::absolute(path).parent_path());
    if (text.compare(0, 3, "-> ") == 0)
        fs::create_symlink(text.substr(3), path);
    else if (path.has_filename())
        std::ofstream(path, std::ios::binary) << text;
}

// Is the part in the text? Prints both; a long text would hide the part.
inline testing::AssertionResult has(const std::string &text, const std::string &part) {
    const std::string both = "looked for:\n" + part + "\nin:\n" + text.substr(0, 2000);
    return testing::AssertionResult(text.find(part) != std::string::npos) << both;
}

// Paths with their contents, as write_file() takes them.
using FileTree = std::map<std::string, std::string>;

inline void make_tree(const fs::path &root, const FileTree &files) {
    for (const auto &[name, text] : files)
        write_file(root / name, text);
}

inline FileTree tree_of(const fs::path &root) {
    FileTree files;
    for (const auto &item : fs::recursive_directory_iterator(root)) {
        const std::string name = item.path().lexically_relative(root);
        if (item.is_symlink())
            files[name] = "-> " + fs::read_symlink(item).string();
        else if (!item.is_directory())
            files[name] = item.is_regular_file() ? read_file(item) : "special";
        else if (fs::is_empty(item))
            files[name + "/"] = "";
    }
    return files;
}

// A new folder, which becomes the working folder, removed with all that is in
// it.
struct TemporaryTree {
    explicit TemporaryTree(std::initializer_list<FileTree::value_type> files = {}) {
        std::string name = (fs::temp_directory_path() / "watch-folder-test-XXXXXX").string();
        root = fs::canonical(mkdtemp(name.data()));
        fs::current_path(root);
        make_tree(".", files);
    }
    ~TemporaryTree() { fs::remove_all(root); }
    fs::path root;
};

inline auto open_descriptors() {
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}

// Returns what a function writes to a descriptor. The function must leave none
// open.
template<typename Run> std::string output_of(Run run) {
    const UniqueFd saved(dup(STDERR_FILENO)), memory(memfd_create("output", MFD_CLOEXEC));
    dup2(memory.get(), STDERR_FILENO);
    const auto before = open_descriptors();
    run();
    dup2(saved.get(), STDERR_FILENO);
    EXPECT_EQ(open_descriptors(), before);
    return read_file("/proc/self/fd/" + std::to_string(memory.get()));
}

// A socket that is bound to a name. Nobody listens yet.
inline UniqueFd bound_socket(const std::string &path, int type) {
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, ""};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
    return fd;
}

// A child that runs `start`, which may execute a program, and is there until it
// is destroyed.
struct ChildProcess {
    explicit ChildProcess(const std::function<void()> &start) {
        int ready[2] = {-1, -1};
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        const UniqueFd reader(ready[0]);
        if ((pid = fork()) < 0)
            abort(); // kill(-1) would reach every process
        if (pid == 0) {
            // Also where the test is ended from outside.
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            [&]() noexcept { start(); }(); // an exception ends the child
            close(ready[1]);
            while (true)
                pause();
        }
        close(ready[1]);
        // start() has returned, or executes, or has ended.
        EXPECT_EQ(read(ready[0], ready, 1), 0);
    }
    ~ChildProcess() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    // The exit status, or the signal that killed it.
    int status() const {
        siginfo_t end{};
        waitid(P_PID, static_cast<id_t>(pid), &end, WEXITED | WNOWAIT);
        return end.si_status;
    }
    pid_t pid;
};

#endif
