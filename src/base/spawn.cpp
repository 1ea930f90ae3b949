// The two shell wrappers of the daemon. Children are started with
// posix_spawn rather than system/popen so that they begin with an empty
// signal mask and default signal dispositions: the daemon blocks its own
// signals in every thread but one and ignores SIGPIPE, and neither should
// leak into the scripts and programs it runs. Each child leads its own
// process group, so a hung script is killed with everything it started.
#include "base/spawn.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <vector>

#include "base/files.h"
#include "base/log.h"

extern char** environ;

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

#ifdef DORVAND_UNIT_TEST
int child_time_limit = 30;
#endif

namespace {

// Children running now, by pid (0: free slot), for shell_kill_all. More
// children than slots at once only go unlisted.
std::atomic<pid_t> running_children[8];

void note_child(pid_t pid, bool running)
{
    for (auto& slot : running_children) {
        pid_t expected = running ? 0 : pid;
        if (slot.compare_exchange_strong(expected, running ? pid : 0))
            return;
    }
}

// Children run in real time, so the bound is kept on the monotonic clock.
int64_t now_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct child {
    pid_t pid = -1;
    unique_fd pidfd;  // readable once the child has ended; invalid on kernels without pidfds
    int64_t deadline_ms = 0;
    const char* command = "";
};

// Spawns "/bin/sh -c command" in its own process group, with stdout on
// out_fd when it is >= 0. False with errno set when it cannot start.
bool spawn_shell(const char* command, int out_fd, child& c)
{
    posix_spawnattr_t attr;
    posix_spawn_file_actions_t actions;
    posix_spawnattr_init(&attr);
    posix_spawn_file_actions_init(&actions);

    sigset_t empty;
    sigemptyset(&empty);
    sigset_t defaults;
    sigfillset(&defaults);
    sigdelset(&defaults, SIGKILL);
    sigdelset(&defaults, SIGSTOP);
    posix_spawnattr_setsigmask(&attr, &empty);
    posix_spawnattr_setsigdefault(&attr, &defaults);
    posix_spawnattr_setpgroup(&attr, 0);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
    if (out_fd >= 0)
        posix_spawn_file_actions_adddup2(&actions, out_fd, STDOUT_FILENO);

    char sh[] = "/bin/sh";
    char dash_c[] = "-c";
    std::vector<char> cmd(command, command + strlen(command) + 1);
    char* argv[] = {sh, dash_c, cmd.data(), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, sh, &actions, &attr, argv, environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) {
        errno = rc;
        return false;
    }
    c.pid = pid;
    c.command = command;
    c.deadline_ms = now_ms() + child_time_limit * 1000LL;
    c.pidfd.reset(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    note_child(pid, true);
    return true;
}

int64_t ms_left(const child& c)
{
    return std::max<int64_t>(c.deadline_ms - now_ms(), 0);
}

void kill_child(const child& c)
{
    kill(-c.pid, SIGKILL);
    log_msg(1, log_lvl::error, "[dorvand] Killed \"%s\": still running after %d s\n", c.command, child_time_limit);
}

// Reaps the child, killing its group once the bound has passed. Returns
// its wait status, or -1.
int wait_child(const child& c)
{
    int status = 0;
    bool killed = false;
    int nap_ms = 1;
    for (;;) {
        pid_t r = waitpid(c.pid, &status, killed ? 0 : WNOHANG);
        if (r == c.pid)
            break;
        // GCOVR_EXCL_START: the child is this process's own, reaped only here (SIGCHLD is never ignored)
        if (r < 0 && errno != EINTR) {
            status = -1;
            break;
        }
        // GCOVR_EXCL_STOP
        if (r != 0)
            continue;
        int64_t left = ms_left(c);
        if (left == 0) {
            kill_child(c);
            killed = true;
            continue;
        }
        if (c.pidfd.valid()) {
            struct pollfd p {
                c.pidfd.get(), POLLIN, 0
            };
            poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 1000)));
        } else {
            // No pidfd (an older kernel): short naps, growing while it runs.
            struct timespec ts {};
            ts.tv_nsec = static_cast<long>(std::min<int64_t>(nap_ms, left) * 1000000);
            clock_nanosleep(CLOCK_MONOTONIC, 0, &ts, nullptr);
            nap_ms = std::min(nap_ms * 2, 20);
        }
    }
    note_child(c.pid, false);
    return status;
}

}  // namespace

int shell_run(size_t limit, const char* format, ...)
{
    std::vector<char> cmd(limit > 0 ? limit : 1, '\0');
    va_list ap;
    va_start(ap, format);
    vsnprintf(cmd.data(), cmd.size(), format, ap);
    va_end(ap);
    child c;
    if (!spawn_shell(cmd.data(), -1, c))
        return -1;
    return wait_child(c);
}

int shell_read(const char* command, std::string& out, size_t max_bytes)
{
    out.clear();
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    unique_fd rd(fds[0]);
    unique_fd wr(fds[1]);
    child c;
    if (!spawn_shell(command, wr.get(), c))
        return -1;
    wr.reset();
    char buf[512];
    for (;;) {
        struct pollfd p {
            rd.get(), POLLIN, 0
        };
        int64_t left = ms_left(c);
        if (left == 0)
            break;  // wait_child kills it
        int ready = poll(&p, 1, static_cast<int>(std::min<int64_t>(left, 1000)));
        if (ready < 0 && errno != EINTR)
            break;
        if (ready <= 0)
            continue;
        ssize_t n = read(rd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (out.size() < max_bytes)
            out.append(buf, std::min(static_cast<size_t>(n), max_bytes - out.size()));
    }
    rd.reset();  // a child still writing gets EPIPE and ends
    wait_child(c);
    return 0;
}

void shell_kill_all()
{
    for (auto& slot : running_children) {
        pid_t pid = slot.load();
        if (pid > 0)
            kill(-pid, SIGKILL);
    }
}
