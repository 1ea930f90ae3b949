// The sandbox's clocks. With the event clock (DORVSIM_CLOCK) every process
// reads simulated time, monotonic and wall alike, and its timed waits end
// when simulated time reaches them (event_clock.cpp). Without it the affine
// clock: the daemon's clocks (times, the wall clock) run `scale` times
// faster than real time, its waits (sleep, select, poll) are cut by the
// same factor, and the monotonic clock stays real.
#include <poll.h>
#include <pthread.h>
#include <sys/select.h>
#include <sys/time.h>
#include <sys/times.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "../faults/fault_core.h"
#include "event_clock.h"
#include "preload.h"

using namespace dorvsim;

namespace {

constexpr int64_t ns_per_s = 1000000000;

std::atomic<void*> real_times{nullptr};
std::atomic<void*> real_time{nullptr};
std::atomic<void*> real_gettimeofday{nullptr};
std::atomic<void*> real_clock_gettime{nullptr};
std::atomic<void*> real_nanosleep{nullptr};
std::atomic<void*> real_clock_nanosleep{nullptr};
std::atomic<void*> real_sleep{nullptr};
std::atomic<void*> real_usleep{nullptr};
std::atomic<void*> real_select{nullptr};
std::atomic<void*> real_pselect{nullptr};
std::atomic<void*> real_poll{nullptr};
std::atomic<void*> real_ppoll{nullptr};

int64_t ts_ns(const struct timespec& ts)
{
    return static_cast<int64_t>(ts.tv_sec) * ns_per_s + ts.tv_nsec;
}

struct timespec ns_ts(int64_t ns)
{
    struct timespec ts {};
    ts.tv_sec = static_cast<time_t>(ns / ns_per_s);
    ts.tv_nsec = static_cast<long>(ns % ns_per_s);
    return ts;
}

bool is_wall_clock(clockid_t clk)
{
    return clk == CLOCK_REALTIME || clk == CLOCK_REALTIME_COARSE;
}

bool is_monotonic(clockid_t clk)
{
    return clk == CLOCK_MONOTONIC || clk == CLOCK_MONOTONIC_RAW || clk == CLOCK_MONOTONIC_COARSE ||
           clk == CLOCK_BOOTTIME;
}

// A sleep of the event clock until `deadline` (wall: on the wall clock).
// 0 once it has come; -1 with EINTR and `rem` set when a signal ends it.
int event_sleep(int64_t deadline, bool wall, const char* call, struct timespec* rem)
{
    bool due = false;
    int rc = event_ppoll(nullptr, 0, deadline, wall, call, nullptr, due);
    if (due)
        return 0;
    if (rem) {
        int64_t left = deadline - (wall ? event_wall_ns() : event_now_ns());
        *rem = ns_ts(left > 0 ? left : 0);
    }
    return rc < 0 ? rc : 0;
}

// select and pselect on the event clock: the sets are restored before each
// real attempt, as each one overwrites them.
int event_select(int nfds, fd_set* rd, fd_set* wr, fd_set* ex, int64_t deadline, const char* call, const sigset_t* mask)
{
    using fn = int (*)(int, fd_set*, fd_set*, fd_set*, const struct timespec*, const __sigset_t*);
    fn f = next_fn<fn>(real_pselect, "pselect");
    if (!f) {
        errno = ENOSYS;
        return -1;
    }
    fd_set r0, w0, e0;
    if (rd)
        r0 = *rd;
    if (wr)
        w0 = *wr;
    if (ex)
        e0 = *ex;
    bool due = false;
    return event_wait(
        deadline, false, call, mask,
        [&](const struct timespec* t, const sigset_t* m) {
            if (rd)
                *rd = r0;
            if (wr)
                *wr = w0;
            if (ex)
                *ex = e0;
            return f(nfds, rd, wr, ex, t, m);
        },
        due);
}

// A lock wait until a simulated deadline on `clk`: real attempts of
// `slice` each (the kick cannot end a futex wait), until the lock is taken
// or simulated time has reached the deadline.
constexpr int64_t lock_slice_ns = 20000000;

template <typename Try>
int event_lock_wait(clockid_t clk, const struct timespec* abstime, const char* call, Try try_until)
{
    bool wall = is_wall_clock(clk);
    int result = 0;
    bool due = false;
    int rc = event_wait(
        ts_ns(*abstime), wall, call, nullptr,
        [&](const struct timespec* t, const sigset_t*) {
            struct timespec now {};
            using fn = int (*)(clockid_t, struct timespec*);
            fn f = next_fn<fn>(real_clock_gettime, "clock_gettime");
            if (f)
                f(CLOCK_MONOTONIC, &now);
            struct timespec until = ns_ts(ts_ns(now) + ts_ns(*t));
            result = try_until(&until);
            return result == ETIMEDOUT ? 0 : 1;
        },
        due, lock_slice_ns);
    return rc == 0 ? ETIMEDOUT : result;
}

int no_function()
{
    errno = ENOSYS;
    return -1;
}

// The fault injector's check of a wait: true (errno set) when a rule fails it.
bool wait_fails(dorvfault::core::call c, int fd)
{
    dorvfault::core::hit h;
    if (!dorvfault::core::check(c, fd, nullptr, nullptr, h))
        return false;
    errno = h.err;
    return true;
}

// Real relative sleep of a daemon duration; on interruption `rem` gets the
// daemon time left.
int scaled_nanosleep(int64_t daemon_ns, struct timespec* rem)
{
    using fn = int (*)(const struct timespec*, struct timespec*);
    fn f = next_fn<fn>(real_nanosleep, "nanosleep");
    if (!f)
        return no_function();
    struct timespec req = ns_ts(to_real_ns(daemon_ns));
    struct timespec left {};
    int rc = f(&req, &left);
    if (rc != 0 && rem)
        *rem = ns_ts(to_daemon_ns(ts_ns(left)));
    return rc;
}

}  // namespace

extern "C" {

clock_t times(struct tms* buf) noexcept
{
    using fn = clock_t (*)(struct tms*);
    fn f = next_fn<fn>(real_times, "times");
    if (!f)
        return static_cast<clock_t>(no_function());
    clock_t real = f(buf);
    if (event_clock_on())
        return static_cast<clock_t>(event_now_ns() / (ns_per_s / config.ticks_per_sec));
    if (!config.active)
        return real;
    long double elapsed = static_cast<long double>(real_monotonic_ns() - config.mono0_ns) * config.scale;
    return static_cast<clock_t>(
        config.ticks0 + static_cast<int64_t>(elapsed * config.ticks_per_sec / static_cast<long double>(ns_per_s)));
}

time_t time(time_t* out) noexcept
{
    if (!config.active && !event_clock_on()) {
        using fn = time_t (*)(time_t*);
        fn f = next_fn<fn>(real_time, "time");
        return f ? f(out) : static_cast<time_t>(no_function());
    }
    time_t now = static_cast<time_t>(daemon_realtime_ns() / ns_per_s);
    if (out)
        *out = now;
    return now;
}

int gettimeofday(struct timeval* __restrict tv, void* __restrict tz) noexcept
{
    if (!config.active && !event_clock_on()) {
        using fn = int (*)(struct timeval*, void*);
        fn f = next_fn<fn>(real_gettimeofday, "gettimeofday");
        return f ? f(tv, tz) : no_function();
    }
    int64_t now = daemon_realtime_ns();
    tv->tv_sec = static_cast<time_t>(now / ns_per_s);
    tv->tv_usec = static_cast<suseconds_t>(now % ns_per_s / 1000);
    return 0;
}

int clock_gettime(clockid_t clk, struct timespec* ts) noexcept
{
    if (event_clock_on() && is_monotonic(clk)) {
        *ts = ns_ts(event_now_ns());
        return 0;
    }
    if ((!config.active && !event_clock_on()) || !is_wall_clock(clk)) {
        using fn = int (*)(clockid_t, struct timespec*);
        fn f = next_fn<fn>(real_clock_gettime, "clock_gettime");
        return f ? f(clk, ts) : no_function();
    }
    *ts = ns_ts(daemon_realtime_ns());
    return 0;
}

int nanosleep(const struct timespec* req, struct timespec* rem)
{
    if (event_clock_on() && req)
        return event_sleep(event_now_ns() + ts_ns(*req), false, "nanosleep", rem);
    if (!config.active || !req) {
        using fn = int (*)(const struct timespec*, struct timespec*);
        fn f = next_fn<fn>(real_nanosleep, "nanosleep");
        return f ? f(req, rem) : no_function();
    }
    return scaled_nanosleep(ts_ns(*req), rem);
}

int clock_nanosleep(clockid_t clk, int flags, const struct timespec* req, struct timespec* rem)
{
    using fn = int (*)(clockid_t, int, const struct timespec*, struct timespec*);
    fn f = next_fn<fn>(real_clock_nanosleep, "clock_nanosleep");
    if (!f)
        return ENOSYS;
    if (event_clock_on() && req && (is_wall_clock(clk) || is_monotonic(clk))) {
        bool wall = is_wall_clock(clk);
        int64_t deadline = ts_ns(*req);
        if (!(flags & TIMER_ABSTIME))
            deadline += wall ? event_wall_ns() : event_now_ns();
        int rc = event_sleep(deadline, wall, "clock_nanosleep", (flags & TIMER_ABSTIME) ? nullptr : rem);
        return rc == 0 ? 0 : errno;
    }
    if (!config.active || !req)
        return f(clk, flags, req, rem);
    if (flags & TIMER_ABSTIME) {
        if (!is_wall_clock(clk))
            return f(clk, flags, req, rem);
        // A daemon deadline on the wall clock becomes the real moment at
        // which the daemon's clock reaches it.
        int64_t wait = to_real_ns(ts_ns(*req) - daemon_realtime_ns());
        struct timespec real_req = ns_ts(wait);
        return f(clk, 0, &real_req, nullptr);
    }
    struct timespec real_req = ns_ts(to_real_ns(ts_ns(*req)));
    struct timespec left {};
    int rc = f(clk, 0, &real_req, &left);
    if (rc == EINTR && rem)
        *rem = ns_ts(to_daemon_ns(ts_ns(left)));
    return rc;
}

unsigned int sleep(unsigned int seconds)
{
    if (event_clock_on()) {
        struct timespec rem {};
        if (event_sleep(event_now_ns() + static_cast<int64_t>(seconds) * ns_per_s, false, "sleep", &rem) == 0)
            return 0;
        return static_cast<unsigned int>(rem.tv_sec + (rem.tv_nsec > 0 ? 1 : 0));
    }
    if (!config.active) {
        using fn = unsigned int (*)(unsigned int);
        fn f = next_fn<fn>(real_sleep, "sleep");
        return f ? f(seconds) : seconds;
    }
    struct timespec rem {};
    if (scaled_nanosleep(static_cast<int64_t>(seconds) * ns_per_s, &rem) == 0)
        return 0;
    return static_cast<unsigned int>(rem.tv_sec + (rem.tv_nsec > 0 ? 1 : 0));
}

int usleep(useconds_t usec)
{
    if (event_clock_on())
        return event_sleep(event_now_ns() + static_cast<int64_t>(usec) * 1000, false, "usleep", nullptr);
    if (!config.active) {
        using fn = int (*)(useconds_t);
        fn f = next_fn<fn>(real_usleep, "usleep");
        return f ? f(usec) : no_function();
    }
    return scaled_nanosleep(static_cast<int64_t>(usec) * 1000, nullptr);
}

int select(int nfds, fd_set* __restrict rd, fd_set* __restrict wr, fd_set* __restrict ex,
           struct timeval* __restrict timeout)
{
    using fn = int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
    fn f = next_fn<fn>(real_select, "select");
    if (!f)
        return no_function();
    if (wait_fails(dorvfault::core::call::select, -1))
        return -1;
    if (event_clock_on() && timeout) {
        int64_t span = (static_cast<int64_t>(timeout->tv_sec) * 1000000 + timeout->tv_usec) * 1000;
        int64_t deadline = event_now_ns() + span;
        int rc = event_select(nfds, rd, wr, ex, deadline, "select", nullptr);
        int saved = errno;
        int64_t left = std::max<int64_t>(deadline - event_now_ns(), 0) / 1000;
        timeout->tv_sec = static_cast<time_t>(left / 1000000);
        timeout->tv_usec = static_cast<suseconds_t>(left % 1000000);
        errno = saved;
        return rc;
    }
    if (!config.active || !timeout)
        return f(nfds, rd, wr, ex, timeout);
    int64_t daemon_ns = (static_cast<int64_t>(timeout->tv_sec) * 1000000 + timeout->tv_usec) * 1000;
    int64_t real_us = (to_real_ns(daemon_ns) + 999) / 1000;
    struct timeval real_tv {};
    real_tv.tv_sec = static_cast<time_t>(real_us / 1000000);
    real_tv.tv_usec = static_cast<suseconds_t>(real_us % 1000000);
    int rc = f(nfds, rd, wr, ex, &real_tv);
    int saved = errno;
    // Linux reports the time left; report it in daemon time.
    int64_t left_us = to_daemon_ns((static_cast<int64_t>(real_tv.tv_sec) * 1000000 + real_tv.tv_usec) * 1000) / 1000;
    if (left_us > daemon_ns / 1000)
        left_us = daemon_ns / 1000;
    timeout->tv_sec = static_cast<time_t>(left_us / 1000000);
    timeout->tv_usec = static_cast<suseconds_t>(left_us % 1000000);
    errno = saved;
    return rc;
}

int pselect(int nfds, fd_set* __restrict rd, fd_set* __restrict wr, fd_set* __restrict ex,
            const struct timespec* __restrict timeout, const __sigset_t* __restrict mask)
{
    using fn = int (*)(int, fd_set*, fd_set*, fd_set*, const struct timespec*, const __sigset_t*);
    fn f = next_fn<fn>(real_pselect, "pselect");
    if (!f)
        return no_function();
    if (wait_fails(dorvfault::core::call::select, -1))
        return -1;
    if (event_clock_on() && timeout)
        return event_select(nfds, rd, wr, ex, event_now_ns() + ts_ns(*timeout), "pselect", mask);
    if (!config.active || !timeout)
        return f(nfds, rd, wr, ex, timeout, mask);
    struct timespec real_ts = ns_ts(to_real_ns(ts_ns(*timeout)));
    return f(nfds, rd, wr, ex, &real_ts, mask);
}

int poll(struct pollfd* fds, nfds_t n, int timeout_ms)
{
    using fn = int (*)(struct pollfd*, nfds_t, int);
    fn f = next_fn<fn>(real_poll, "poll");
    if (!f)
        return no_function();
    if (wait_fails(dorvfault::core::call::poll, n ? fds[0].fd : -1))
        return -1;
    if (event_clock_on() && timeout_ms > 0) {
        bool due = false;
        return event_ppoll(fds, n, event_now_ns() + static_cast<int64_t>(timeout_ms) * 1000000, false, "poll", nullptr,
                           due);
    }
    if (!config.active || timeout_ms <= 0)
        return f(fds, n, timeout_ms);
    int64_t real_ns = to_real_ns(static_cast<int64_t>(timeout_ms) * 1000000);
    return f(fds, n, static_cast<int>((real_ns + 999999) / 1000000));
}

int ppoll(struct pollfd* fds, nfds_t n, const struct timespec* timeout, const __sigset_t* mask)
{
    using fn = int (*)(struct pollfd*, nfds_t, const struct timespec*, const __sigset_t*);
    fn f = next_fn<fn>(real_ppoll, "ppoll");
    if (!f)
        return no_function();
    if (wait_fails(dorvfault::core::call::poll, n ? fds[0].fd : -1))
        return -1;
    if (event_clock_on() && timeout && ts_ns(*timeout) > 0) {
        bool due = false;
        return event_ppoll(fds, n, event_now_ns() + ts_ns(*timeout), false, "ppoll", mask, due);
    }
    if (!config.active || !timeout)
        return f(fds, n, timeout, mask);
    struct timespec real_ts = ns_ts(to_real_ns(ts_ns(*timeout)));
    return f(fds, n, &real_ts, mask);
}

// Timed lock and condition waits (std::timed_mutex::try_lock_for,
// std::condition_variable::wait_for): their deadlines are on the simulated
// clock, the kernel's on the real one.
int pthread_mutex_clocklock(pthread_mutex_t* m, clockid_t clk, const struct timespec* abstime)
{
    using fn = int (*)(pthread_mutex_t*, clockid_t, const struct timespec*);
    static std::atomic<void*> slot{nullptr};
    fn f = next_fn<fn>(slot, "pthread_mutex_clocklock");
    if (!f)
        return ENOSYS;
    if (!event_clock_on() || !(is_wall_clock(clk) || is_monotonic(clk)))
        return f(m, clk, abstime);
    return event_lock_wait(clk, abstime, "pthread_mutex_clocklock",
                           [&](const struct timespec* until) { return f(m, CLOCK_MONOTONIC, until); });
}

int pthread_mutex_timedlock(pthread_mutex_t* m, const struct timespec* abstime)
{
    using fn = int (*)(pthread_mutex_t*, clockid_t, const struct timespec*);
    static std::atomic<void*> slot{nullptr};
    using fn_t = int (*)(pthread_mutex_t*, const struct timespec*);
    static std::atomic<void*> slot_t{nullptr};
    if (!event_clock_on()) {
        fn_t t = next_fn<fn_t>(slot_t, "pthread_mutex_timedlock");
        return t ? t(m, abstime) : ENOSYS;
    }
    fn f = next_fn<fn>(slot, "pthread_mutex_clocklock");
    if (!f)
        return ENOSYS;
    return event_lock_wait(CLOCK_REALTIME, abstime, "pthread_mutex_timedlock",
                           [&](const struct timespec* until) { return f(m, CLOCK_MONOTONIC, until); });
}

int pthread_cond_clockwait(pthread_cond_t* c, pthread_mutex_t* m, clockid_t clk, const struct timespec* abstime)
{
    using fn = int (*)(pthread_cond_t*, pthread_mutex_t*, clockid_t, const struct timespec*);
    static std::atomic<void*> slot{nullptr};
    fn f = next_fn<fn>(slot, "pthread_cond_clockwait");
    if (!f)
        return ENOSYS;
    if (!event_clock_on() || !(is_wall_clock(clk) || is_monotonic(clk)))
        return f(c, m, clk, abstime);
    // A wake-up ends the wait like a taken lock: the caller checks its
    // condition (spurious wake-ups are allowed).
    return event_lock_wait(clk, abstime, "pthread_cond_clockwait",
                           [&](const struct timespec* until) { return f(c, m, CLOCK_MONOTONIC, until); });
}

}  // extern "C"
