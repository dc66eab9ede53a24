// Holders for descriptors and streams, so that every path out of a function releases them.
//
// Owns:   what it was given, until release() or reset().
// Errors: none; closing keeps errno: a failure can still be reported after a holder is gone.
#ifndef BASE_HANDLES_H
#define BASE_HANDLES_H

#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <memory>
#include <unistd.h>
#include <utility>

class UniqueFd {
public:
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd &&other) noexcept : fd_(other.release()) {}
    UniqueFd &operator=(UniqueFd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    ~UniqueFd() { reset(); }

    explicit operator bool() const { return fd_ >= 0; }
    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int saved = errno;
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
        errno = saved;
    }

private:
    int fd_;
};

template<auto close_stream> struct StreamCloser {
    template<typename Stream> void operator()(Stream *stream) const {
        const int saved = errno;
        close_stream(stream);
        errno = saved;
    }
};

using UniqueDir = std::unique_ptr<DIR, StreamCloser<closedir>>;
using UniqueFile = std::unique_ptr<FILE, StreamCloser<fclose>>;

#endif
