// The event clock's process side (event_clock.cpp): simulated time from the
// shared segment, and timed waits that let the supervisor advance it.
#pragma once

#include <poll.h>
#include <signal.h>
#include <sys/types.h>
#include <time.h>

#include <cstdint>
#include <functional>

namespace dorvsim {

// Maps the segment DORVSIM_CLOCK names and lists this process; false (and
// the affine clock stays) when the variable is unset or the file unusable.
bool event_clock_attach();
bool event_clock_on();

// Called by a timed wait that a kick woke before its deadline (a nudge):
// the fault injector looks at its control file there.
void event_clock_set_wake_hook(void (*hook)());

// Lists a process under the clock (a child just started by this one).
void event_clock_register(pid_t pid);

// Simulated monotonic clock, wall clock, and the time since attaching.
int64_t event_now_ns();
int64_t event_wall_ns();
int64_t event_elapsed_ns();

// One timed wait until `deadline_ns` (on the wall clock when `wall`, which a
// step of it moves). `attempt(timeout, mask)` is the real wait; it is called
// with a zero timeout once the deadline has come (`due` then true), so a
// wait on descriptors still reports what is ready. Returns attempt's result;
// -1 with EINTR is a signal of the caller's own.
// `slice_ns` bounds each real attempt: a wait the kick cannot interrupt
// (a lock's) looks again after that long.
int event_wait(int64_t deadline_ns, bool wall, const char* call, const sigset_t* caller_mask,
               const std::function<int(const struct timespec*, const sigset_t*)>& attempt, bool& due,
               int64_t slice_ns = 500000000);

// event_wait over ppoll (nfds 0: a sleep).
int event_ppoll(struct pollfd* fds, nfds_t n, int64_t deadline_ns, bool wall, const char* call,
                const sigset_t* caller_mask, bool& due);

}  // namespace dorvsim
