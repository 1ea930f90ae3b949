// Owning wrappers for file descriptors and C streams, and the one way the
// daemon opens, appends to and replaces its fixed paths in world-writable
// directories: no link is followed, nothing but its own regular files is
// written, and a file replaced whole is never seen half-written.
#pragma once

#include <sys/types.h>
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

// fopen with close-on-exec added to `mode`, for files other programs own
// (the board file, the configuration file). Returns null with errno set.
file_ptr open_file(const char* path, const char* mode);

// True when path exists.
bool file_exists(const char* path);

// Opens one of the daemon's own files: `flags` plus O_NOFOLLOW and
// O_CLOEXEC (O_TRUNC is refused: a hard link's target would be cut before
// the check). The file must then be a regular file owned by the daemon's
// user with one link. Returns the descriptor, or -1 with errno set (ELOOP
// for a symbolic link, EPERM for any other refusal); `why`, when given,
// receives the reason of a refusal (null otherwise). Does not log.
int open_checked(const char* path, int flags, mode_t mode, const char** why);

// open_checked that logs a refusal in one line ("[dorvand] Refused ...").
// The caller goes on as it does when the file cannot be opened.
unique_fd open_owned(const char* path, int flags, mode_t mode = 0666);

// open_owned as a stream: "r" reads, "a" appends (created when missing).
file_ptr open_owned_file(const char* path, const char* mode);

// Creates path when missing; an existing file is left as it is. 0 or -1.
int touch_marker(const char* path);

// Appends to one of the daemon's own files so that a failed write leaves the
// file as it was: close() flushes, and on failure cuts the file back to its
// size at open() and reports false with errno set.
class append_file {
  public:
    // False with errno set when the file cannot be opened (or is refused).
    bool open(const char* path);
    FILE* get() const { return f_.get(); }
    // Cuts a torn tail off a file of `unit`-byte records, so appends start
    // on a record boundary and a failed one ends on it.
    void trim_to_records(off_t unit);
    bool close();
    // Drops whatever was written since open() and closes.
    void discard();

  private:
    file_ptr f_;
    off_t start_ = 0;
};

// A file rewritten whole: the temporary path is created exclusively (a stale
// one is removed first) and renamed over the target by commit(). A writer
// that is destroyed uncommitted removes its temporary file.
class replace_file {
  public:
    replace_file(const char* tmp_path, const char* target) : tmp_(tmp_path), target_(target) {}
    replace_file(const replace_file&) = delete;
    replace_file& operator=(const replace_file&) = delete;
    ~replace_file();
    // False with errno set when the temporary file cannot be created.
    bool open();
    FILE* get() const { return f_.get(); }
    // Flushes, closes and renames. False with errno set on any failure, the
    // target then unchanged.
    bool commit();

  private:
    const char* tmp_;
    const char* target_;
    file_ptr f_;
};
