// The event clock, process side. Simulated time lives in a shared segment
// (clock_segment.h) that the supervisor advances only while every process
// and thread under the clock is blocked in the kernel; it then moves to the
// earliest deadline of the timed waits recorded here and kicks their
// threads with a signal. A thread that runs never sees time pass, so CPU
// work and a slow machine cost no simulated time.
//
// A timed wait records its deadline in a wait slot, blocks the kick signal,
// checks the deadline, and only then waits in the kernel (ppoll or pselect
// with a mask that lets the kick through), so a kick sent between the check
// and the wait is never lost. Waits without a time-out and every other
// blocking call (read, waitpid, locks) need nothing: the supervisor sees
// their threads asleep in the kernel, and the kernel marks a thread runnable
// in the same call that wakes it, so no wake-up can slip between a look
// and an advance.
#include "event_clock.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "../faults/fault_core.h"
#include "clock_segment.h"
#include "preload.h"

namespace dorvsim {

namespace {

seg::header* segment = nullptr;
seg::proc_slot* procs = nullptr;
seg::wait_slot* waits = nullptr;
int kick_signal = 0;
int64_t now_at_attach = 0;
std::atomic<void (*)()> wake_hook{nullptr};

__thread volatile sig_atomic_t kicked = 0;

std::atomic<void*> real_ppoll{nullptr};
std::atomic<void*> real_sigaction{nullptr};
std::atomic<void*> real_sigmask{nullptr};

void on_kick(int)
{
    kicked = 1;
}

pid_t own_tid()
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

int block_kick(sigset_t* old)
{
    using fn = int (*)(int, const sigset_t*, sigset_t*);
    fn f = next_fn<fn>(real_sigmask, "pthread_sigmask");
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, kick_signal);
    return f ? f(SIG_BLOCK, &set, old) : -1;
}

void restore_mask(const sigset_t* old)
{
    using fn = int (*)(int, const sigset_t*, sigset_t*);
    fn f = next_fn<fn>(real_sigmask, "pthread_sigmask");
    if (f)
        f(SIG_SETMASK, old, nullptr);
}

seg::wait_slot* claim_wait(int64_t deadline_ns, bool wall, const char* call)
{
    int32_t tid = own_tid();
    uint32_t start = static_cast<uint32_t>(tid) % seg::wait_slots;
    for (uint32_t i = 0; i < seg::wait_slots; ++i) {
        seg::wait_slot& s = waits[(start + i) % seg::wait_slots];
        int32_t expected = 0;
        if (s.tid.load(std::memory_order_relaxed) == 0 && s.tid.compare_exchange_strong(expected, tid)) {
            s.pid.store(getpid());
            s.wall.store(wall ? 1 : 0);
            snprintf(s.call, sizeof s.call, "%s", call);
            s.deadline_ns.store(deadline_ns);
            segment->waits.fetch_add(1, std::memory_order_relaxed);
            return &s;
        }
    }
    return nullptr;
}

void release_wait(seg::wait_slot* s)
{
    s->deadline_ns.store(0);
    s->tid.store(0);
}

}  // namespace

void event_clock_set_wake_hook(void (*hook)())
{
    wake_hook.store(hook);
}

bool event_clock_on()
{
    return segment != nullptr;
}

void event_clock_register(pid_t pid)
{
    if (!segment || pid <= 0)
        return;
    for (uint32_t i = 0; i < seg::proc_slots; ++i) {
        if (procs[i].pid.load(std::memory_order_relaxed) == pid)
            return;
    }
    for (uint32_t i = 0; i < seg::proc_slots; ++i) {
        int32_t expected = 0;
        if (procs[i].pid.compare_exchange_strong(expected, pid))
            return;
    }
    warn("clock: no free process slot for pid %d; it runs unseen", static_cast<int>(pid));
}

bool event_clock_attach()
{
    const char* path = getenv("DORVSIM_CLOCK");
    if (!path || !*path)
        return false;
    dorvfault::core::passthrough quiet;
    int fd = open(path, O_RDWR | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0) {
        warn("clock: cannot open %s: %s", path, strerror(errno));
        return false;
    }
    struct stat st {};
    void* map = MAP_FAILED;
    if (fstat(fd, &st) == 0 && static_cast<size_t>(st.st_size) >= seg::size)
        map = mmap(nullptr, seg::size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (map == MAP_FAILED) {
        warn("clock: %s is no clock segment", path);
        return false;
    }
    auto* h = static_cast<seg::header*>(map);
    if (h->magic != seg::magic || h->version != seg::version || h->kick_signal < static_cast<uint32_t>(SIGRTMIN) ||
        h->kick_signal > static_cast<uint32_t>(SIGRTMAX)) {
        warn("clock: %s has another format", path);
        munmap(map, seg::size);
        return false;
    }
    kick_signal = static_cast<int>(h->kick_signal);
    using sa_fn = int (*)(int, const struct sigaction*, struct sigaction*);
    sa_fn sa = next_fn<sa_fn>(real_sigaction, "sigaction");
    struct sigaction act {};
    act.sa_handler = on_kick;
    sigemptyset(&act.sa_mask);
    if (!sa || sa(kick_signal, &act, nullptr) != 0) {
        warn("clock: cannot handle signal %d", kick_signal);
        munmap(map, seg::size);
        return false;
    }
    procs = reinterpret_cast<seg::proc_slot*>(static_cast<char*>(map) + seg::procs_offset);
    waits = reinterpret_cast<seg::wait_slot*>(static_cast<char*>(map) + seg::waits_offset);
    segment = h;
    now_at_attach = event_now_ns();
    event_clock_register(getpid());
    // A child made by fork (the shell's subshells, daemon()) is listed by
    // itself too, for the forks the wrappers do not see.
    pthread_atfork(nullptr, nullptr, [] { event_clock_register(getpid()); });
    dorvfault::core::child_started = [](int pid) { event_clock_register(pid); };
    return true;
}

int64_t event_now_ns()
{
    for (;;) {
        uint32_t s1 = segment->seq.load(std::memory_order_acquire);
        int64_t now = segment->now_ns.load(std::memory_order_acquire);
        if (!(s1 & 1) && segment->seq.load(std::memory_order_acquire) == s1)
            return now;
    }
}

int64_t event_wall_ns()
{
    for (;;) {
        uint32_t s1 = segment->seq.load(std::memory_order_acquire);
        int64_t now = segment->now_ns.load(std::memory_order_acquire);
        int64_t off = segment->wall_offset_ns.load(std::memory_order_acquire);
        if (!(s1 & 1) && segment->seq.load(std::memory_order_acquire) == s1)
            return now + off;
    }
}

int64_t event_elapsed_ns()
{
    return event_now_ns() - now_at_attach;
}

int event_wait(int64_t deadline_ns, bool wall, const char* call, const sigset_t* caller_mask,
               const std::function<int(const struct timespec*, const sigset_t*)>& attempt, bool& due, int64_t slice_ns)
{
    due = false;
    seg::wait_slot* slot = claim_wait(deadline_ns, wall, call);
    if (!slot) {
        // Out of slots: the wait would hold the clock; take it in real time.
        static std::atomic<bool> told{false};
        if (!told.exchange(true))
            warn("clock: no free wait slot; %s waits in real time", call);
        int64_t left = deadline_ns - (wall ? event_wall_ns() : event_now_ns());
        struct timespec ts {};
        if (left > 0) {
            ts.tv_sec = static_cast<time_t>(left / 1000000000);
            ts.tv_nsec = static_cast<long>(left % 1000000000);
        }
        int rc = attempt(&ts, caller_mask);
        due = rc == 0;
        return rc;
    }
    sigset_t old;
    block_kick(&old);
    sigset_t mask = caller_mask ? *caller_mask : old;
    sigdelset(&mask, kick_signal);
    // A safety slice: a wait never sleeps so long that a lost supervisor
    // leaves it stuck.
    const struct timespec slice {
        static_cast<time_t>(slice_ns / 1000000000), static_cast<long>(slice_ns % 1000000000)
    };
    const struct timespec zero {
        0, 0
    };
    int rc = 0;
    for (;;) {
        int64_t now = wall ? event_wall_ns() : event_now_ns();
        if (now >= deadline_ns) {
            due = true;
            rc = attempt(&zero, caller_mask ? caller_mask : &old);
            break;
        }
        kicked = 0;
        rc = attempt(&slice, &mask);
        if (rc != 0 && !(rc < 0 && errno == EINTR && kicked))
            break;
        if (auto hook = wake_hook.load(); kicked && hook)
            hook();
    }
    int saved = errno;
    release_wait(slot);
    restore_mask(&old);
    errno = saved;
    return rc;
}

int event_ppoll(struct pollfd* fds, nfds_t n, int64_t deadline_ns, bool wall, const char* call,
                const sigset_t* caller_mask, bool& due)
{
    using fn = int (*)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
    fn f = next_fn<fn>(real_ppoll, "ppoll");
    if (!f) {
        errno = ENOSYS;
        return -1;
    }
    return event_wait(
        deadline_ns, wall, call, caller_mask,
        [&](const struct timespec* t, const sigset_t* m) { return f(fds, n, t, m); }, due);
}

}  // namespace dorvsim
