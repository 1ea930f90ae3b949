// The C-library functions the fault injector stands in front of. Each asks
// the core whether an armed rule fails it, and otherwise calls the real
// function; the ones that make descriptors record their kind and path.
// The glibc wrappers that would redefine these names stay out of this file.
#undef _FORTIFY_SOURCE
#undef _FILE_OFFSET_BITS
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <stdio_ext.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>

#include "fault_core.h"

using namespace dorvfault::core;

namespace {

#define REAL(name, type)                                                                                               \
    static std::atomic<void*> slot_##name{nullptr};                                                                    \
    auto real = next_fn<type>(slot_##name, #name);                                                                     \
    if (!real) {                                                                                                       \
        errno = ENOSYS;                                                                                                \
        return -1;                                                                                                     \
    }

int fail(const hit& h)
{
    errno = h.err;
    return -1;
}

// The path a call at `dirfd` names, as the descriptor table knows it.
const char* at_path(int dirfd, const char* path, char (&buf)[path_max])
{
    if (!path || path[0] == '/' || dirfd == AT_FDCWD)
        return path;
    char dir[path_max];
    path_of(dirfd, dir);
    if (!dir[0])
        return path;
    size_t dl = strlen(dir);
    size_t pl = strlen(path);
    if (dl + 1 + pl >= path_max)
        return path;
    memcpy(buf, dir, dl);
    buf[dl] = '/';
    memcpy(buf + dl + 1, path, pl + 1);
    return buf;
}

// The path of a unix socket address ("@name" for an abstract one), or null.
const char* sock_path(const struct sockaddr* addr, socklen_t len, char (&buf)[path_max])
{
    if (!addr || len <= offsetof(struct sockaddr_un, sun_path) || addr->sa_family != AF_UNIX)
        return nullptr;
    const auto* un = reinterpret_cast<const struct sockaddr_un*>(addr);
    size_t n = len - offsetof(struct sockaddr_un, sun_path);
    if (n > sizeof un->sun_path)
        n = sizeof un->sun_path;
    size_t o = 0;
    size_t i = 0;
    if (un->sun_path[0] == '\0') {
        buf[o++] = '@';
        i = 1;
    }
    for (; i < n && un->sun_path[i] && o < path_max - 1; ++i)
        buf[o++] = un->sun_path[i];
    buf[o] = '\0';
    return buf;
}

fd_kind socket_kind(int domain)
{
    if (domain == AF_UNIX)
        return fd_kind::unix_sock;
    if (domain == AF_INET || domain == AF_INET6)
        return fd_kind::inet;
    return fd_kind::other;
}

mode_t mode_arg(int flags, va_list ap)
{
    return (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? static_cast<mode_t>(va_arg(ap, int)) : 0;
}

template <typename F> int opened(F real_open, int dirfd, const char* path, int flags, mode_t mode)
{
    char buf[path_max];
    const char* full = at_path(dirfd, path, buf);
    hit h;
    if (check(call::open, -1, full, nullptr, h))
        return fail(h);
    int fd = real_open(path, flags, mode);
    if (fd >= 0)
        track(fd, fd_kind::file, full);
    return fd;
}

using open_fn = int (*)(const char*, int, ...);
using openat_fn = int (*)(int, const char*, int, ...);

int do_open(std::atomic<void*>& slot, const char* name, const char* path, int flags, mode_t mode)
{
    open_fn real = next_fn<open_fn>(slot, name);
    if (!real) {
        errno = ENOSYS;
        return -1;
    }
    return opened([&](const char* p, int f, mode_t m) { return real(p, f, m); }, AT_FDCWD, path, flags, mode);
}

int do_openat(std::atomic<void*>& slot, const char* name, int dirfd, const char* path, int flags, mode_t mode)
{
    openat_fn real = next_fn<openat_fn>(slot, name);
    if (!real) {
        errno = ENOSYS;
        return -1;
    }
    return opened([&](const char* p, int f, mode_t m) { return real(dirfd, p, f, m); }, dirfd, path, flags, mode);
}

std::atomic<void*> s_open{nullptr}, s_open64{nullptr}, s_openat{nullptr}, s_openat64{nullptr};

// Writes all of `n` bytes through the interposed write, as stdio would.
bool write_all(int fd, const char* p, size_t n)
{
    while (n) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR)
            continue;
        if (w < 0)
            return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// stdio writes through the C library's internal write, which no rule sees.
// While a write rule is armed, a stream's buffered bytes go out here
// instead, through the interposed write, whenever it is flushed. On a
// failure the stream's error flag is set and what it held is dropped.
// Caller holds the stream's lock.
bool flush_through_rules(FILE* f)
{
    if (f->_mode > 0 || f->_IO_write_ptr <= f->_IO_write_base)
        return true;
    bool ok = write_all(fileno(f), f->_IO_write_base, static_cast<size_t>(f->_IO_write_ptr - f->_IO_write_base));
    int err = errno;
    __fpurge(f);
    if (!ok)
        f->_flags |= _IO_ERR_SEEN;
    errno = err;
    return ok;
}

}  // namespace

extern "C" {

int open(const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return do_open(s_open, "open", path, flags, mode);
}

int open64(const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return do_open(s_open64, "open64", path, flags, mode);
}

int __open_2(const char* path, int flags)
{
    return do_open(s_open, "open", path, flags, 0);
}

int __open64_2(const char* path, int flags)
{
    return do_open(s_open64, "open64", path, flags, 0);
}

int openat(int dirfd, const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return do_openat(s_openat, "openat", dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    mode_t mode = mode_arg(flags, ap);
    va_end(ap);
    return do_openat(s_openat64, "openat64", dirfd, path, flags, mode);
}

int __openat_2(int dirfd, const char* path, int flags)
{
    return do_openat(s_openat, "openat", dirfd, path, flags, 0);
}

int __openat64_2(int dirfd, const char* path, int flags)
{
    return do_openat(s_openat64, "openat64", dirfd, path, flags, 0);
}

int creat(const char* path, mode_t mode)
{
    return do_open(s_open, "open", path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

int creat64(const char* path, mode_t mode)
{
    return do_open(s_open64, "open64", path, O_CREAT | O_WRONLY | O_TRUNC, mode);
}

int close(int fd)
{
    REAL(close, int (*)(int));
    untrack(fd);
    return real(fd);
}

ssize_t write(int fd, const void* buf, size_t n)
{
    REAL(write, ssize_t(*)(int, const void*, size_t));
    hit h;
    if (check(call::write, fd, nullptr, nullptr, h)) {
        if (h.short_len < 0)
            return fail(h);
        if (n > static_cast<size_t>(h.short_len))
            n = static_cast<size_t>(h.short_len);
    }
    return real(fd, buf, n);
}

ssize_t pwrite(int fd, const void* buf, size_t n, off_t off)
{
    REAL(pwrite, ssize_t(*)(int, const void*, size_t, off_t));
    hit h;
    if (check(call::write, fd, nullptr, nullptr, h)) {
        if (h.short_len < 0)
            return fail(h);
        if (n > static_cast<size_t>(h.short_len))
            n = static_cast<size_t>(h.short_len);
    }
    return real(fd, buf, n, off);
}

ssize_t pwrite64(int fd, const void* buf, size_t n, off64_t off)
{
    REAL(pwrite64, ssize_t(*)(int, const void*, size_t, off64_t));
    hit h;
    if (check(call::write, fd, nullptr, nullptr, h)) {
        if (h.short_len < 0)
            return fail(h);
        if (n > static_cast<size_t>(h.short_len))
            n = static_cast<size_t>(h.short_len);
    }
    return real(fd, buf, n, off);
}

ssize_t writev(int fd, const struct iovec* iov, int cnt)
{
    REAL(writev, ssize_t(*)(int, const struct iovec*, int));
    hit h;
    if (check(call::write, fd, nullptr, nullptr, h)) {
        if (h.short_len < 0)
            return fail(h);
        // Cut short: the first bytes, from the vectors in order.
        size_t left = static_cast<size_t>(h.short_len);
        int used = 0;
        struct iovec cut[16];
        for (; used < cnt && used < 16 && left; ++used) {
            cut[used] = iov[used];
            if (cut[used].iov_len > left)
                cut[used].iov_len = left;
            left -= cut[used].iov_len;
        }
        return used ? real(fd, cut, used) : 0;
    }
    return real(fd, iov, cnt);
}

int rename(const char* from, const char* to)
{
    REAL(rename, int (*)(const char*, const char*));
    hit h;
    if (check(call::rename, -1, from, to, h))
        return fail(h);
    return real(from, to);
}

int renameat(int fromfd, const char* from, int tofd, const char* to)
{
    REAL(renameat, int (*)(int, const char*, int, const char*));
    char b1[path_max];
    char b2[path_max];
    hit h;
    if (check(call::rename, -1, at_path(fromfd, from, b1), at_path(tofd, to, b2), h))
        return fail(h);
    return real(fromfd, from, tofd, to);
}

int unlink(const char* path)
{
    REAL(unlink, int (*)(const char*));
    hit h;
    if (check(call::unlink, -1, path, nullptr, h))
        return fail(h);
    return real(path);
}

int unlinkat(int dirfd, const char* path, int flags)
{
    REAL(unlinkat, int (*)(int, const char*, int));
    char buf[path_max];
    hit h;
    if (check(call::unlink, -1, at_path(dirfd, path, buf), nullptr, h))
        return fail(h);
    return real(dirfd, path, flags);
}

int ftruncate(int fd, off_t len)
{
    REAL(ftruncate, int (*)(int, off_t));
    hit h;
    if (check(call::ftruncate, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd, len);
}

int ftruncate64(int fd, off64_t len)
{
    REAL(ftruncate64, int (*)(int, off64_t));
    hit h;
    if (check(call::ftruncate, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd, len);
}

int fsync(int fd)
{
    REAL(fsync, int (*)(int));
    hit h;
    if (check(call::fsync, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd);
}

int fdatasync(int fd)
{
    REAL(fdatasync, int (*)(int));
    hit h;
    if (check(call::fsync, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd);
}

int mkdir(const char* path, mode_t mode)
{
    REAL(mkdir, int (*)(const char*, mode_t));
    hit h;
    if (check(call::mkdir, -1, path, nullptr, h))
        return fail(h);
    return real(path, mode);
}

int socket(int domain, int type, int protocol)
{
    REAL(socket, int (*)(int, int, int));
    hit h;
    if (check(call::socket, -1, nullptr, nullptr, h, socket_kind(domain)))
        return fail(h);
    int fd = real(domain, type, protocol);
    if (fd >= 0)
        track(fd, socket_kind(domain), "");
    return fd;
}

int bind(int fd, const struct sockaddr* addr, socklen_t len)
{
    REAL(bind, int (*)(int, const struct sockaddr*, socklen_t));
    char buf[path_max];
    const char* path = sock_path(addr, len, buf);
    hit h;
    if (check(call::bind, fd, path, nullptr, h))
        return fail(h);
    int rc = real(fd, addr, len);
    if (rc == 0 && path)
        track_path(fd, path);
    return rc;
}

int connect(int fd, const struct sockaddr* addr, socklen_t len)
{
    REAL(connect, int (*)(int, const struct sockaddr*, socklen_t));
    char buf[path_max];
    const char* path = sock_path(addr, len, buf);
    hit h;
    if (check(call::connect, fd, path, nullptr, h))
        return fail(h);
    int rc = real(fd, addr, len);
    if ((rc == 0 || errno == EINPROGRESS) && path)
        track_path(fd, path);
    return rc;
}

ssize_t send(int fd, const void* buf, size_t n, int flags)
{
    REAL(send, ssize_t(*)(int, const void*, size_t, int));
    hit h;
    if (check(call::send, fd, nullptr, nullptr, h)) {
        if (h.short_len < 0)
            return fail(h);
        if (n > static_cast<size_t>(h.short_len))
            n = static_cast<size_t>(h.short_len);
    }
    return real(fd, buf, n, flags);
}

ssize_t sendto(int fd, const void* buf, size_t n, int flags, const struct sockaddr* addr, socklen_t len)
{
    REAL(sendto, ssize_t(*)(int, const void*, size_t, int, const struct sockaddr*, socklen_t));
    char pb[path_max];
    hit h;
    if (check(call::send, fd, sock_path(addr, len, pb), nullptr, h)) {
        if (h.short_len < 0)
            return fail(h);
        if (n > static_cast<size_t>(h.short_len))
            n = static_cast<size_t>(h.short_len);
    }
    return real(fd, buf, n, flags, addr, len);
}

ssize_t sendmsg(int fd, const struct msghdr* msg, int flags)
{
    REAL(sendmsg, ssize_t(*)(int, const struct msghdr*, int));
    char pb[path_max];
    const char* to =
        msg ? sock_path(static_cast<const struct sockaddr*>(msg->msg_name), msg->msg_namelen, pb) : nullptr;
    hit h;
    if (check(call::send, fd, to, nullptr, h)) {
        if (h.short_len < 0 || msg == nullptr)
            return h.short_len < 0 ? fail(h) : real(fd, msg, flags);
        // Cut short: the first bytes, from the vectors in order.
        struct msghdr cut_msg = *msg;
        struct iovec cut[16];
        size_t left = static_cast<size_t>(h.short_len);
        size_t used = 0;
        for (; used < msg->msg_iovlen && used < 16 && left; ++used) {
            cut[used] = msg->msg_iov[used];
            if (cut[used].iov_len > left)
                cut[used].iov_len = left;
            left -= cut[used].iov_len;
        }
        cut_msg.msg_iov = cut;
        cut_msg.msg_iovlen = used;
        return real(fd, &cut_msg, flags);
    }
    return real(fd, msg, flags);
}

ssize_t recv(int fd, void* buf, size_t n, int flags)
{
    REAL(recv, ssize_t(*)(int, void*, size_t, int));
    hit h;
    if (check(call::recv, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd, buf, n, flags);
}

ssize_t __recv_chk(int fd, void* buf, size_t n, size_t buflen, int flags)
{
    REAL(__recv_chk, ssize_t(*)(int, void*, size_t, size_t, int));
    hit h;
    if (check(call::recv, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd, buf, n, buflen, flags);
}

ssize_t recvfrom(int fd, void* buf, size_t n, int flags, struct sockaddr* addr, socklen_t* len)
{
    REAL(recvfrom, ssize_t(*)(int, void*, size_t, int, struct sockaddr*, socklen_t*));
    hit h;
    if (check(call::recv, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd, buf, n, flags, addr, len);
}

ssize_t __recvfrom_chk(int fd, void* buf, size_t n, size_t buflen, int flags, struct sockaddr* addr, socklen_t* len)
{
    REAL(__recvfrom_chk, ssize_t(*)(int, void*, size_t, size_t, int, struct sockaddr*, socklen_t*));
    hit h;
    if (check(call::recv, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd, buf, n, buflen, flags, addr, len);
}

ssize_t recvmsg(int fd, struct msghdr* msg, int flags)
{
    REAL(recvmsg, ssize_t(*)(int, struct msghdr*, int));
    hit h;
    if (check(call::recv, fd, nullptr, nullptr, h))
        return fail(h);
    return real(fd, msg, flags);
}

int pipe(int fds[2])
{
    REAL(pipe, int (*)(int[2]));
    hit h;
    if (check(call::pipe2, -1, nullptr, nullptr, h, fd_kind::pipe))
        return fail(h);
    int rc = real(fds);
    if (rc == 0) {
        track(fds[0], fd_kind::pipe, "");
        track(fds[1], fd_kind::pipe, "");
    }
    return rc;
}

int pipe2(int fds[2], int flags)
{
    REAL(pipe2, int (*)(int[2], int));
    hit h;
    if (check(call::pipe2, -1, nullptr, nullptr, h, fd_kind::pipe))
        return fail(h);
    int rc = real(fds, flags);
    if (rc == 0) {
        track(fds[0], fd_kind::pipe, "");
        track(fds[1], fd_kind::pipe, "");
    }
    return rc;
}

namespace {

int started(int rc, const pid_t* pid)
{
    if (rc == 0 && pid && child_started)
        child_started(*pid);
    return rc;
}

pid_t forked(pid_t pid)
{
    if (pid > 0 && child_started)
        child_started(pid);
    return pid;
}

}  // namespace

int posix_spawn(pid_t* pid, const char* path, const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attr,
                char* const argv[], char* const envp[])
{
    using fn = int (*)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*, char* const[],
                       char* const[]);
    static std::atomic<void*> slot{nullptr};
    fn real = next_fn<fn>(slot, "posix_spawn");
    if (!real)
        return ENOSYS;
    hit h;
    if (check(call::spawn, -1, path, nullptr, h))
        return h.err;
    return started(real(pid, path, actions, attr, argv, envp), pid);
}

int posix_spawnp(pid_t* pid, const char* file, const posix_spawn_file_actions_t* actions, const posix_spawnattr_t* attr,
                 char* const argv[], char* const envp[])
{
    using fn = int (*)(pid_t*, const char*, const posix_spawn_file_actions_t*, const posix_spawnattr_t*, char* const[],
                       char* const[]);
    static std::atomic<void*> slot{nullptr};
    fn real = next_fn<fn>(slot, "posix_spawnp");
    if (!real)
        return ENOSYS;
    hit h;
    if (check(call::spawn, -1, file, nullptr, h))
        return h.err;
    return started(real(pid, file, actions, attr, argv, envp), pid);
}

pid_t fork(void)
{
    REAL(fork, pid_t(*)());
    hit h;
    if (check(call::spawn, -1, nullptr, nullptr, h))
        return fail(h);
    return forked(real());
}

// A wrapper cannot return into a vfork child (it would unwind the parent's
// frame), so vfork is served by fork, which every correct caller accepts.
pid_t vfork(void)
{
    static std::atomic<void*> slot_fork{nullptr};
    auto real = next_fn<pid_t (*)()>(slot_fork, "fork");
    if (!real) {
        errno = ENOSYS;
        return -1;
    }
    hit h;
    if (check(call::spawn, -1, nullptr, nullptr, h))
        return fail(h);
    return forked(real());
}

namespace {

// fopen and fopen64 alike: the open they make inside the C library is out of
// reach, so the rule is checked here and the stream's descriptor tracked.
FILE* open_stream(std::atomic<void*>& slot, const char* name, const char* path, const char* mode)
{
    auto real = next_fn<FILE* (*)(const char*, const char*)>(slot, name);
    if (!real) {
        errno = ENOSYS;
        return nullptr;
    }
    hit h;
    if (check(call::open, -1, path, nullptr, h)) {
        errno = h.err;
        return nullptr;
    }
    FILE* f = real(path, mode);
    if (f)
        track(fileno(f), fd_kind::file, path);
    return f;
}

}  // namespace

FILE* fopen(const char* path, const char* mode)
{
    static std::atomic<void*> slot{nullptr};
    return open_stream(slot, "fopen", path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    static std::atomic<void*> slot{nullptr};
    return open_stream(slot, "fopen64", path, mode);
}

int fflush(FILE* f)
{
    REAL(fflush, int (*)(FILE*));
    if (!f || !armed(call::write))
        return real(f);
    flockfile(f);
    int rc = flush_through_rules(f) ? real(f) : EOF;
    int err = errno;
    funlockfile(f);
    errno = err;
    return rc;
}

size_t fwrite(const void* ptr, size_t size, size_t n, FILE* f)
{
    static std::atomic<void*> slot{nullptr};
    auto real = next_fn<size_t (*)(const void*, size_t, size_t, FILE*)>(slot, "fwrite");
    if (!real) {
        errno = ENOSYS;
        return 0;
    }
    if (!armed(call::write) || f->_mode > 0 || size == 0 || n == 0)
        return real(ptr, size, n, f);
    // While a write rule is armed every fwrite reaches the descriptor as one
    // write of its own, after what the stream held.
    flockfile(f);
    size_t done = 0;
    if (flush_through_rules(f)) {
        const char* p = static_cast<const char*>(ptr);
        size_t total = size * n;
        size_t sent = 0;
        while (sent < total) {
            ssize_t w = write(fileno(f), p + sent, total - sent);
            if (w < 0 && errno == EINTR)
                continue;
            if (w < 0) {
                f->_flags |= _IO_ERR_SEEN;
                break;
            }
            sent += static_cast<size_t>(w);
        }
        done = sent / size;
    }
    int err = errno;
    funlockfile(f);
    errno = err;
    return done;
}

int fclose(FILE* f)
{
    REAL(fclose, int (*)(FILE*));
    int fd = fileno(f);
    bool ok = true;
    int err = 0;
    if (armed(call::write)) {
        flockfile(f);
        ok = flush_through_rules(f);
        err = errno;
        funlockfile(f);
    }
    untrack(fd);
    int rc = real(f);
    if (!ok) {
        errno = err;
        return EOF;
    }
    return rc;
}

// A sigaction rule's path is the signal's number ("10"). Only calls that
// install an action count: reading one changes nothing that could fail.
int sigaction(int signo, const struct sigaction* act, struct sigaction* old)
{
    REAL(sigaction, int (*)(int, const struct sigaction*, struct sigaction*));
    if (act) {
        char number[12];
        char* p = number + sizeof number;
        *--p = '\0';
        unsigned v = signo < 0 ? 0u : static_cast<unsigned>(signo);
        do
            *--p = static_cast<char>('0' + v % 10);
        while (v /= 10);
        hit h;
        if (check(call::sigaction, -1, p, nullptr, h))
            return fail(h);
    }
    return real(signo, act, old);
}

// Returns the error, as pthread_create does, without touching errno.
int pthread_create(pthread_t* thread, const pthread_attr_t* attr, void* (*start)(void*), void* arg)
{
    using fn = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
    static std::atomic<void*> slot{nullptr};
    fn real = next_fn<fn>(slot, "pthread_create");
    if (!real)
        return ENOSYS;
    hit h;
    if (check(call::thread, -1, nullptr, nullptr, h))
        return h.err;
    return real(thread, attr, start, arg);
}

int daemon(int nochdir, int noclose)
{
    REAL(daemon, int (*)(int, int));
    hit h;
    if (check(call::daemon, -1, nullptr, nullptr, h))
        return fail(h);
    return real(nochdir, noclose);
}

#ifndef DORVFAULT_NO_WAITS
// The preload library scales these waits and checks them there.

int select(int nfds, fd_set* rd, fd_set* wr, fd_set* ex, struct timeval* timeout)
{
    REAL(select, int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*));
    hit h;
    if (check(call::select, -1, nullptr, nullptr, h))
        return fail(h);
    return real(nfds, rd, wr, ex, timeout);
}

int pselect(int nfds, fd_set* rd, fd_set* wr, fd_set* ex, const struct timespec* timeout, const sigset_t* mask)
{
    REAL(pselect, int (*)(int, fd_set*, fd_set*, fd_set*, const struct timespec*, const sigset_t*));
    hit h;
    if (check(call::select, -1, nullptr, nullptr, h))
        return fail(h);
    return real(nfds, rd, wr, ex, timeout, mask);
}

int poll(struct pollfd* fds, nfds_t n, int timeout)
{
    REAL(poll, int (*)(struct pollfd*, nfds_t, int));
    hit h;
    if (check(call::poll, n ? fds[0].fd : -1, nullptr, nullptr, h))
        return fail(h);
    return real(fds, n, timeout);
}

int ppoll(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const sigset_t* mask)
{
    REAL(ppoll, int (*)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*));
    hit h;
    if (check(call::poll, n ? fds[0].fd : -1, nullptr, nullptr, h))
        return fail(h);
    return real(fds, n, timeout, mask);
}

#endif

}  // extern "C"
