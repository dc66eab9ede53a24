#include "base/diagnostics.h"

#include "base/handles.h"

#include <algorithm>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

constexpr int longest_wait_ms = 1000;

bool is_socket = false;
bool asks_first = false; // it would wait, so a write must not be tried before there is room
bool reader_is_away = false;
char last_written = '\n';

// A descriptor on the pipe or terminal of standard error that does not block. It is an opening of
// its own: the flag stays off those that other processes have.
unique_fd reopen_without_blocking() {
    return unique_fd(open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

int64_t now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Signals do not prolong the wait.
bool wait_for_room(int most_ms) {
    const int64_t end = now_ms() + most_ms;
    pollfd fd{STDERR_FILENO, POLLOUT, 0};
    for (int64_t left = most_ms; left >= 0; left = end - now_ms()) {
        const int ready = poll(&fd, 1, static_cast<int>(left));
        if (ready >= 0 || errno != EINTR)
            return ready > 0;
    }
    return false;
}

// Bytes that the reader has not taken yet.
int queued() {
    int count = 0;
    return ioctl(STDERR_FILENO, is_socket ? SIOCOUTQ : FIONREAD, &count) == 0 ? count : 0;
}

// A reader that takes something, however little, is not away: there is room for a poll only when a
// page of a pipe, or most of a socket, is free.
bool wait_for_reader() {
    const int before = queued();
    for (const int64_t end = now_ms() + longest_wait_ms; now_ms() < end;)
        if (wait_for_room(longest_wait_ms / 10) || queued() < before)
            return true;
    return false;
}

ssize_t write_some(const char *text, size_t size) {
    if (asks_first) {
        if (wait_for_room(0))
            return write(STDERR_FILENO, text, std::min<size_t>(size, PIPE_BUF));
        errno = EAGAIN;
        return -1;
    }
    return is_socket ? send(STDERR_FILENO, text, size, MSG_DONTWAIT | MSG_NOSIGNAL)
                     : write(STDERR_FILENO, text, size);
}

// False when the rest of the text is given up: at an error, or when nobody has read for a second.
bool write_bounded(const char *text, size_t size) {
    // Room for a short line may be left in a pipe that nobody reads; only a reader makes more.
    if (reader_is_away && !wait_for_room(0))
        return false;
    reader_is_away = false;
    while (size > 0) {
        const ssize_t count = write_some(text, size);
        if (count > 0) {
            last_written = text[count - 1];
            text += count;
            size -= static_cast<size_t>(count);
        } else if (count == 0 || (errno != EINTR && errno != EAGAIN)) {
            return false;
        } else if (errno == EAGAIN && !wait_for_reader()) {
            reader_is_away = true;
            return false;
        }
    }
    return true;
}

// What was cut short ends its line before the next begins.
ssize_t write_piece(void * /*cookie*/, const char *text, size_t size) {
    const int saved = errno;
    static bool was_cut = false;
    if (!was_cut || last_written == '\n' || write_bounded("\n", 1))
        was_cut = !write_bounded(text, size);
    errno = saved;
    return static_cast<ssize_t>(size);
}

} // namespace

void diag(const char *format, ...) {
    const int saved = errno;
    va_list arguments;
    va_start(arguments, format);
    // stderr is unbuffered; the C library still assembles one call's text and writes it once.
    vfprintf(stderr, format, arguments);
    va_end(arguments);
    errno = saved;
}

void bound_standard_error() {
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0)
        return;
    is_socket = S_ISSOCK(status.st_mode);
    if (!is_socket) {
        if (!S_ISFIFO(status.st_mode) && isatty(STDERR_FILENO) == 0)
            return; // it has no reader who could stop
        const unique_fd reopened = reopen_without_blocking();
        asks_first = !reopened || dup2(reopened.get(), STDERR_FILENO) < 0;
    }
    FILE *bounded = fopencookie(nullptr, "w", {nullptr, write_piece, nullptr, nullptr});
    if (bounded == nullptr)
        return;
    setvbuf(bounded, nullptr, _IONBF, 0);
    stderr = bounded;
}
