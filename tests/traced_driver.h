// The pass driver under trace: one system call of a pass fails or is cut short, or the process is
// killed at it.
//
// Owns:   the traced process, which ends with its holder.
// Errors: a process that did not end its pass is no longer alive.
#ifndef TESTS_TRACED_DRIVER_H
#define TESTS_TRACED_DRIVER_H

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <string>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

// A call of a pass: the nth of its number. Those that look at other processes are counted apart,
// since their count differs from run to run.
struct traced_call {
    long number;
    bool in_proc;
    unsigned int nth;
    unsigned int renames_before;
};

constexpr int no_fault = 0;
constexpr int cut_short = -1; // the call transfers one byte
constexpr int killed = -2;    // instead of the call

// What happens at a call: one of the above or an errno value. Memory, once short, stays short.
struct traced_fault {
    int what;
    traced_call at;
};

// The errors that can happen to a call.
inline std::vector<int> errors_that_fit(const traced_call &call) {
    static const std::map<long, std::vector<int>> known = {
        {SYS_openat, {EIO, ENOSPC, EDQUOT, EACCES, EMFILE, ENOMEM, EROFS, EINTR, ESTALE}},
        {SYS_renameat, {EIO, ENOSPC, EDQUOT, EACCES, ENOMEM, EROFS, EXDEV, ESTALE}},
        {SYS_mkdirat, {EIO, ENOSPC, EDQUOT, EACCES, ENOMEM, EROFS, ESTALE}},
        {SYS_write, {EIO, ENOSPC, EDQUOT, EINTR, cut_short}},
        {SYS_pwritev2, {EIO, ENOSPC, EDQUOT, EINTR, EPIPE, EAGAIN, EOPNOTSUPP}},
        {SYS_read, {EIO, EINTR, ENOMEM, ESTALE, cut_short}},
        {SYS_fsync, {EIO, ENOSPC, EDQUOT, EINTR, EROFS}},
        {SYS_close, {EIO, EINTR}},
        {SYS_ioctl, {ENOTTY, EIO}},
        {SYS_futex, {}},         // a wake-up cannot fail
        {SYS_getppid, {ENOMEM}}, // stands before every allocation of the driver
#ifdef __SANITIZE_ADDRESS__      // which ends the process when it gets no memory
        {SYS_brk, {}},
        {SYS_mmap, {}},
#else
        {SYS_brk, {ENOMEM}},
        {SYS_mmap, {ENOMEM}},
#endif
    };
    const auto row = known.find(call.number);
    return row != known.end() ? row->second : std::vector<int>{EIO, EACCES, ENOMEM, ESTALE, EINTR};
}

// An allocation is no call of its own to be killed at.
inline std::vector<int> kill_at(const traced_call &call) {
    return std::vector<int>(call.number == SYS_getppid ? 0 : 1, killed);
}

// All calls, but of those that look at other processes, hundreds alike, a part that thins out.
inline std::vector<traced_call> sampled(const std::vector<traced_call> &calls) {
    std::vector<traced_call> chosen;
    for (const traced_call &call : calls) {
        unsigned int position = 1;
        while (position < call.nth)
            position += 1 + position / 8;
        if (!call.in_proc || position == call.nth)
            chosen.push_back(call);
    }
    return chosen;
}

class traced_driver {
public:
    // Starts the driver on root/watch and root/target/news.mxf, with standard output on a file that
    // is there; its standard error is appended to root/errors. Stopped before its first pass.
    traced_driver(const char *program, const std::filesystem::path &root,
                  const std::filesystem::path &output)
        : pid_(fork()) {
        if (pid_ == 0)
            start(program, root, output);
        waitpid(pid_, &status_, 0);
        ptrace(PTRACE_SETOPTIONS, pid_, nullptr, PTRACE_O_TRACESYSGOOD | PTRACE_O_EXITKILL);
        is_alive_ = true;
        pass();
    }
    traced_driver(const traced_driver &) = delete;
    traced_driver &operator=(const traced_driver &) = delete;
    ~traced_driver() {
        if (is_alive_)
            ptrace(PTRACE_DETACH, pid_, nullptr, SIGTERM);
        else
            kill(pid_, SIGKILL);
        waitpid(pid_, &status_, 0);
    }

    bool is_alive() const { return is_alive_; }

    size_t descriptors() const {
        const std::filesystem::directory_iterator all("/proc/" + std::to_string(pid_) + "/fd");
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }

    // Runs to the stop before the next pass.
    void pass() {
        if (is_alive_)
            go_on(PTRACE_CONT);
        is_alive_ = is_alive_ && WIFSTOPPED(status_) && WSTOPSIG(status_) == SIGSTOP;
    }

    // One pass with a fault. Returns the calls it made, without those of the stop itself; sets
    // `came` when the call of the fault was among them.
    std::vector<traced_call> pass_with(const traced_fault &fault, bool *came = nullptr) {
        std::vector<traced_call> calls;
        std::map<std::pair<long, bool>, unsigned int> seen;
        unsigned int renames = 0;
        while (go_on(PTRACE_SYSCALL)) {
            const user_regs_struct regs = registers();
            const auto number = static_cast<long>(regs.orig_rax);
            const bool in_proc = is_in_proc(static_cast<int>(regs.rdi));
            const traced_call now{number, in_proc, ++seen[{number, in_proc}], renames};
            renames += number == SYS_renameat ? 1 : 0;
            if (number != SYS_kill && number != SYS_getpid)
                calls.push_back(now);
            if (is_hit(fault, now)) {
                if (came != nullptr)
                    *came = true;
                make_happen(fault.what, regs);
            } else {
                go_on(PTRACE_SYSCALL); // to the end of the call
            }
        }
        is_alive_ = WIFSTOPPED(status_) && WSTOPSIG(status_) == SIGSTOP;
        return calls;
    }

private:
    [[noreturn]] static void start(const char *program, const std::filesystem::path &root,
                                   const std::filesystem::path &output) {
        dup2(open(output.c_str(), O_WRONLY | O_CLOEXEC), 1);
        dup2(open((root / "errors").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), 2);
        ptrace(PTRACE_TRACEME);
        execl(program, program, root.c_str(), (root / "watch").c_str(),
              (root / "target/news.mxf").c_str(), nullptr);
        _exit(127);
    }

    // True at the beginning or the end of a system call, false when the process stopped or ended.
    bool go_on(__ptrace_request how) {
        do {
            ptrace(how, pid_, nullptr, 0);
            waitpid(pid_, &status_, 0);
        } while (WIFSTOPPED(status_) && WSTOPSIG(status_) == SIGCHLD); // nobody there waits for it
        return WIFSTOPPED(status_) && WSTOPSIG(status_) == (SIGTRAP | 0x80);
    }

    user_regs_struct registers() const {
        user_regs_struct regs{};
        ptrace(PTRACE_GETREGS, pid_, nullptr, &regs);
        return regs;
    }

    static bool is_hit(const traced_fault &fault, const traced_call &now) {
        const bool stays = now.number == SYS_brk || now.number == SYS_mmap;
        return fault.what != no_fault && now.number == fault.at.number &&
               now.in_proc == fault.at.in_proc &&
               (stays ? now.nth >= fault.at.nth : now.nth == fault.at.nth);
    }

    void make_happen(int what, const user_regs_struct &regs) {
        if (what == killed) {
            kill(pid_, SIGKILL);
            go_on(PTRACE_SYSCALL);
            return;
        }
        user_regs_struct changed = regs;
        if (what == cut_short)
            changed.rdx = std::min(regs.rdx, 1ULL);
        else if (regs.orig_rax == SYS_brk) // where it fails it tells where memory ends, as for 0
            changed.rdi = 0;
        else if (regs.orig_rax != SYS_close) // a close that fails has closed all the same
            changed.orig_rax = ~0ULL;
        ptrace(PTRACE_SETREGS, pid_, nullptr, &changed);
        if (!go_on(PTRACE_SYSCALL))
            return;
        changed = registers();
        changed.rdi = regs.rdi; // a call leaves its arguments as they were
        changed.rdx = regs.rdx;
        if (what != cut_short && regs.orig_rax != SYS_brk)
            changed.rax = static_cast<unsigned long long>(-what);
        ptrace(PTRACE_SETREGS, pid_, nullptr, &changed);
    }

    bool is_in_proc(int fd) const {
        char text[8] = "";
        const std::string link = "/proc/" + std::to_string(pid_) + "/fd/" + std::to_string(fd);
        return fd >= 0 && readlink(link.c_str(), text, sizeof(text) - 1) > 0 &&
               strncmp(text, "/proc", 5) == 0;
    }

    pid_t pid_;
    int status_ = 0;
    bool is_alive_ = false;
};

#endif
