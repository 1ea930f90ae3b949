// The two shell wrappers of the daemon. Children are started with
// posix_spawn rather than system/popen so that they begin with an empty
// signal mask and default signal dispositions: the daemon blocks its own
// signals in every thread but one and ignores SIGPIPE, and neither should
// leak into the scripts and programs it runs.
#include "base/spawn.h"

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <vector>

#include "base/files.h"

extern char** environ;

namespace {

// Spawns "/bin/sh -c command", with stdout on out_fd when it is >= 0.
// Returns the child's pid, or -1 with errno set.
pid_t spawn_shell(const char* command, int out_fd)
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
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);
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
        return -1;
    }
    return pid;
}

int wait_child(pid_t pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
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
    pid_t pid = spawn_shell(cmd.data(), -1);
    if (pid < 0)
        return -1;
    return wait_child(pid);
}

int shell_read(const char* command, std::string& out, size_t max_bytes)
{
    out.clear();
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    unique_fd rd(fds[0]);
    unique_fd wr(fds[1]);
    pid_t pid = spawn_shell(command, wr.get());
    if (pid < 0)
        return -1;
    wr.reset();
    char buf[512];
    for (;;) {
        ssize_t n = read(rd.get(), buf, sizeof buf);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (out.size() < max_bytes)
            out.append(buf, std::min(static_cast<size_t>(n), max_bytes - out.size()));
    }
    rd.reset();  // a child still writing gets EPIPE and ends
    wait_child(pid);
    return 0;
}
