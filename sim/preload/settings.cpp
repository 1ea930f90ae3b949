// Start-up of the preload library: which process it serves, the clock scale,
// the state and request-log paths; and the request log itself.
#include <fcntl.h>
#include <sys/syscall.h>
#include <sys/times.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "../faults/fault_core.h"
#include "event_clock.h"
#include "preload.h"

namespace dorvsim {

settings config;

namespace {

constexpr double max_scale = 100000.0;
constexpr const char* default_process = "dorvand";

std::atomic<void*> real_clock_gettime{nullptr};
std::atomic<void*> real_times{nullptr};

int64_t read_clock(clockid_t clk)
{
    using fn = int (*)(clockid_t, struct timespec*);
    struct timespec ts {};
    fn f = next_fn<fn>(real_clock_gettime, "clock_gettime");
    if (!f || f(clk, &ts) != 0)
        syscall(SYS_clock_gettime, clk, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void copy_env(const char* name, char (&out)[256])
{
    const char* v = getenv(name);
    if (!v)
        return;
    if (strlen(v) >= sizeof out) {
        warn("%s too long, ignored", name);
        return;
    }
    snprintf(out, sizeof out, "%s", v);
}

double env_number(const char* name, double fallback, double lo, double hi)
{
    const char* v = getenv(name);
    if (!v || !*v)
        return fallback;
    char* end = nullptr;
    double d = strtod(v, &end);
    if (*end != '\0' || !std::isfinite(d) || d < lo || d > hi) {
        warn("bad %s=\"%s\", using %g", name, v, fallback);
        return fallback;
    }
    return d;
}

void write_line(const char* text, size_t len)
{
    if (!config.reqlog_path[0])
        return;
    dorvfault::core::passthrough quiet;  // the log's own writes are no daemon's calls
    int fd = open(config.reqlog_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    // One write per line: lines from several threads never interleave.
    [[maybe_unused]] ssize_t n = write(fd, text, len);
    close(fd);
}

__attribute__((constructor)) void dorvsim_init()
{
    // The event clock serves every process of the sandbox, children too:
    // time may only pass while all of them wait.
    event_clock_attach();
    const char* wanted = getenv("DORVSIM_PROCESS");
    if (!wanted || !*wanted)
        wanted = default_process;
    if (strcmp(program_invocation_short_name, wanted) != 0)
        return;

    copy_env("DORVSIM_STATE", config.state_path);
    copy_env("DORVSIM_REQLOG", config.reqlog_path);
    config.mono0_ns = read_clock(CLOCK_MONOTONIC);
    int64_t now_ns = read_clock(CLOCK_REALTIME);
    config.scale = env_number("DORVSIM_SCALE", 1.0, 1.0, max_scale);
    double now_s = static_cast<double>(now_ns) / 1e9;
    config.t0 = env_number("DORVSIM_T0", now_s, 0.0, now_s + 1.0);
    long tck = sysconf(_SC_CLK_TCK);
    config.ticks_per_sec = tck > 0 ? tck : 100;
    using times_fn = clock_t (*)(struct tms*);
    struct tms t {};
    times_fn f = next_fn<times_fn>(real_times, "times");
    config.ticks0 = f ? static_cast<int64_t>(f(&t)) : 0;
    config.active = true;
    faults_start();
    if (event_clock_on())
        reqlog("req=start pid=%d clock=event", static_cast<int>(getpid()));
    else
        reqlog("req=start pid=%d scale=%g t0=%.6f", static_cast<int>(getpid()), config.scale, config.t0);
}

}  // namespace

int64_t real_realtime_ns()
{
    return read_clock(CLOCK_REALTIME);
}

int64_t real_monotonic_ns()
{
    return read_clock(CLOCK_MONOTONIC);
}

int64_t daemon_realtime_ns()
{
    if (event_clock_on())
        return event_wall_ns();
    long double t0_ns = static_cast<long double>(config.t0) * 1e9L;
    long double real = static_cast<long double>(real_realtime_ns());
    return static_cast<int64_t>(t0_ns + (real - t0_ns) * config.scale);
}

int64_t to_real_ns(int64_t daemon_ns)
{
    if (daemon_ns <= 0)
        return 0;
    return static_cast<int64_t>(std::ceil(static_cast<long double>(daemon_ns) / config.scale));
}

int64_t to_daemon_ns(int64_t real_ns)
{
    if (real_ns <= 0)
        return 0;
    return static_cast<int64_t>(static_cast<long double>(real_ns) * config.scale);
}

size_t format_timed_line(char* line, size_t size, const char* fmt, va_list ap)
{
    int64_t now = daemon_realtime_ns();
    int head = snprintf(line, size, "t=%lld.%03lld ", static_cast<long long>(now / 1000000000),
                        static_cast<long long>(now % 1000000000 / 1000000));
    int body = vsnprintf(line + head, size - static_cast<size_t>(head) - 1, fmt, ap);
    size_t len = static_cast<size_t>(head) + (body > 0 ? static_cast<size_t>(body) : 0);
    if (len > size - 2)
        len = size - 2;  // cut, but still one whole line
    line[len++] = '\n';
    return len;
}

void reqlog(const char* fmt, ...)
{
    if (!config.reqlog_path[0])
        return;
    int saved = errno;
    char line[1024];
    va_list ap;
    va_start(ap, fmt);
    size_t len = format_timed_line(line, sizeof line, fmt, ap);
    va_end(ap);
    write_line(line, len);
    errno = saved;
}

void warn(const char* fmt, ...)
{
    int saved = errno;
    char text[512];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    fprintf(stderr, "dorvsim: %s\n", text);
    // Quoted so that the log stays one line of key=value words.
    for (char* c = text; *c; ++c) {
        if (*c == '"' || *c == '\n')
            *c = '\'';
    }
    reqlog("req=sim_error msg=\"%s\"", text);
    errno = saved;
}

}  // namespace dorvsim
