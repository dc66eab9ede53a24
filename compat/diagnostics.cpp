#include "compat/diagnostics.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr long longest_wait_ms = 1000;

// How a write is kept from waiting: by a flag of the call, by a question before it, or, for what is
// neither pipe nor socket and has no reader, not at all.
enum class way { by_flag, by_question, plainly } way_to_write = way::by_flag;
bool reader_is_away = false;
char last_written = '\n';

bool has_reader() {
    struct stat status {};
    return fstat(STDERR_FILENO, &status) == 0 &&
           (S_ISFIFO(status.st_mode) || S_ISSOCK(status.st_mode));
}

long now_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

// Signals do not prolong the wait.
bool wait_for_room(long most_ms) {
    const long end = now_ms() + most_ms;
    pollfd fd{STDERR_FILENO, POLLOUT, 0};
    int ready = 0;
    do {
        ready = poll(&fd, 1, static_cast<int>(std::max(end - now_ms(), 0L)));
    } while (ready < 0 && errno == EINTR && now_ms() < end);
    return ready > 0;
}

// Writes what there is room for; -1 with EAGAIN when there is none.
ssize_t write_some(const char *text, size_t size) {
    if (way_to_write == way::by_flag) {
        iovec piece{const_cast<char *>(text), size};
        const ssize_t count = pwritev2(STDERR_FILENO, &piece, 1, -1, RWF_NOWAIT);
        if (count >= 0 || (errno != EAGAIN && errno != EOPNOTSUPP && errno != ENOSYS))
            return count;
        const bool is_full = errno == EAGAIN;
        way_to_write = !has_reader() ? way::plainly : is_full ? way::by_flag : way::by_question;
        errno = EAGAIN;
        if (is_full && way_to_write == way::by_flag)
            return -1;
    }
    if (way_to_write == way::plainly)
        return write(STDERR_FILENO, text, size);
    if (wait_for_room(0))
        return write(STDERR_FILENO, text, std::min<size_t>(size, PIPE_BUF));
    errno = EAGAIN;
    return -1;
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
        } else if (errno == EAGAIN && !wait_for_room(longest_wait_ms)) {
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
    FILE *bounded = fopencookie(nullptr, "w", {nullptr, write_piece, nullptr, nullptr});
    if (bounded == nullptr)
        return;
    setvbuf(bounded, nullptr, _IONBF, 0);
    stderr = bounded;
}
