// os/owners.h - owners of what the seam hands out: memory from malloc, a
// stream, a command's pipe and a descriptor. Each gives its resource back
// when it goes out of scope, so a failure branch has nothing to undo.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <utility>

#include "os/os.h"

namespace qorcfg::os {

struct FreeDeleter {
    void operator()(void *p) const { std::free(p); }
};
// Memory from malloc (or the seam's allocators), released with free.
template <typename T>
using Memory = std::unique_ptr<T, FreeDeleter>;
// A text from malloc.
using Text = Memory<char>;

struct FileCloser {
    void operator()(FILE *f) const { std::fclose(f); }
};
// A stream from os::fopen.
using File = std::unique_ptr<FILE, FileCloser>;

struct PipeCloser {
    void operator()(FILE *f) const { os::pclose(f); }
};
// A command's stream from os::popen.
using Pipe = std::unique_ptr<FILE, PipeCloser>;

// A descriptor, closed with os::close.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { reset(); }
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0)
            os::close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

}  // namespace qorcfg::os
