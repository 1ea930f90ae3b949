// Owning wrappers for file descriptors and C streams, and small file helpers.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <utility>

// A move-only owner of one file descriptor; closes it on destruction.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : fd_(fd) {}
    unique_fd(const unique_fd&) = delete;
    unique_fd& operator=(const unique_fd&) = delete;
    unique_fd(unique_fd&& other) noexcept : fd_(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

struct file_closer {
    void operator()(FILE* f) const { fclose(f); }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// fopen with close-on-exec added to `mode` (the daemon forks shells from
// several threads). Returns null with errno set on failure.
file_ptr open_file(const char* path, const char* mode);

// True when path exists.
bool file_exists(const char* path);

// Creates path when missing (opened for append and closed). 0 or -1.
int touch_marker(const char* path);
