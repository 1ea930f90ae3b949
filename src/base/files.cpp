// File helpers shared by the modules, and the safe opening, appending and
// replacing of the daemon's own files.
#include "base/files.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "base/log.h"

namespace {

// Why an open descriptor may not be written by the daemon; null when it may.
const char* refusal(int fd)
{
    struct stat st {};
    // GCOVR_EXCL_START: fstat of a descriptor just opened cannot fail
    if (fstat(fd, &st) != 0)
        return "cannot be examined";
    // GCOVR_EXCL_STOP
    if (!S_ISREG(st.st_mode))
        return "not a regular file";
    // The daemon never changes its user; asking once spares a system call
    // on every log line.
    static const uid_t euid = geteuid();
    if (st.st_uid != euid)
        return "owned by another user";
    if (st.st_nlink != 1)
        return "a hard link";
    return nullptr;
}

// Flushes and closes `raw`. On a failure whatever is still buffered is
// dropped and, unless `cut_to` is negative, the file is cut back to that
// size. False with errno set on any failure.
bool flush_and_close(FILE* raw, off_t cut_to)
{
    bool ok = fflush(raw) == 0 && !ferror(raw);
    int err = errno;
    if (!ok) {
        if (cut_to >= 0) {
            [[maybe_unused]] int rc = ftruncate(fileno(raw), cut_to);
        }
        __fpurge(raw);
    }
    if (fclose(raw) != 0 && ok) {
        err = errno;
        ok = false;
    }
    errno = err;
    return ok;
}

}  // namespace

file_ptr open_file(const char* path, const char* mode)
{
    std::string m(mode);
    m += 'e';
    return file_ptr(fopen(path, m.c_str()));
}

bool file_exists(const char* path)
{
    return access(path, F_OK) == 0;
}

int open_checked(const char* path, int flags, mode_t mode, const char** why)
{
    if (why)
        *why = nullptr;
    if (flags & O_TRUNC) {
        errno = EINVAL;
        return -1;
    }
    int fd = open(path, flags | O_NOFOLLOW | O_CLOEXEC, mode);
    if (fd < 0) {
        if (errno == ELOOP && why)
            *why = "a symbolic link";
        return -1;
    }
    if (const char* reason = refusal(fd)) {
        close(fd);
        if (why)
            *why = reason;
        errno = EPERM;
        return -1;
    }
    return fd;
}

unique_fd open_owned(const char* path, int flags, mode_t mode)
{
    const char* why = nullptr;
    unique_fd fd(open_checked(path, flags, mode, &why));
    if (why) {
        int err = errno;
        log_msg(0, log_lvl::error, "[dorvand] Refused %s: %s\n", path, why);
        errno = err;
    }
    return fd;
}

file_ptr open_owned_file(const char* path, const char* mode)
{
    const bool append = mode[0] == 'a';
    unique_fd fd = open_owned(path, append ? O_WRONLY | O_APPEND | O_CREAT : O_RDONLY);
    if (!fd.valid())
        return nullptr;
    FILE* f = fdopen(fd.get(), append ? "a" : "r");
    if (f)
        fd.release();
    return file_ptr(f);
}

int touch_marker(const char* path)
{
    unique_fd fd = open_owned(path, O_WRONLY | O_APPEND | O_CREAT);
    return fd.valid() ? 0 : -1;
}

bool append_file::open(const char* path)
{
    f_ = open_owned_file(path, "a");
    if (!f_)
        return false;
    struct stat st {};
    start_ = fstat(fileno(f_.get()), &st) == 0 ? st.st_size : 0;
    return true;
}

void append_file::trim_to_records(off_t unit)
{
    if (!f_ || start_ % unit == 0)
        return;
    start_ -= start_ % unit;
    [[maybe_unused]] int rc = ftruncate(fileno(f_.get()), start_);
}

bool append_file::close()
{
    // On failure what reached the file is cut off as well, so the file ends
    // as it was opened.
    return f_ && flush_and_close(f_.release(), start_);
}

void append_file::discard()
{
    // GCOVR_EXCL_START: callers discard only a file they opened
    if (!f_)
        return;
    // GCOVR_EXCL_STOP
    FILE* raw = f_.release();
    __fpurge(raw);
    [[maybe_unused]] int rc = ftruncate(fileno(raw), start_);
    fclose(raw);
}

replace_file::~replace_file()
{
    if (f_) {
        f_.reset();
        unlink(tmp_);
    }
}

bool replace_file::open()
{
    // A stale temporary file (or anything planted under its name) goes first;
    // the exclusive create then refuses whatever appears in between.
    unlink(tmp_);
    unique_fd fd(::open(tmp_, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0666));
    if (!fd.valid())
        return false;
    f_.reset(fdopen(fd.get(), "w"));
    // GCOVR_EXCL_START: fdopen of a new descriptor fails only when memory is exhausted
    if (!f_)
        return false;
    // GCOVR_EXCL_STOP
    fd.release();
    return true;
}

bool replace_file::commit()
{
    // GCOVR_EXCL_START: callers commit only a file they opened
    if (!f_)
        return false;
    // GCOVR_EXCL_STOP
    bool ok = flush_and_close(f_.release(), -1);
    int err = errno;
    if (ok && rename(tmp_, target_) != 0) {
        err = errno;
        ok = false;
    }
    if (!ok)
        unlink(tmp_);
    errno = err;
    return ok;
}
