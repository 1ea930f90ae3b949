// Shared pieces of the simulated access point's preload library: its
// settings from the environment, the real C-library functions behind the
// interposed ones, the daemon clock and the request log.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>

#include "../faults/fault_core.h"

namespace dorvsim {

// Settings read once by the library's constructor. `active` is false in every
// process but the daemon: children inherit LD_PRELOAD and must run unchanged.
struct settings {
    bool active = false;
    double scale = 1.0;    // daemon seconds per real second
    double t0 = 0.0;       // real epoch seconds at which both clocks agree
    int64_t mono0_ns = 0;  // real monotonic clock at start-up
    int64_t ticks0 = 0;    // real times() at start-up
    long ticks_per_sec = 100;
    char state_path[256] = {};
    char reqlog_path[256] = {};
};

extern settings config;

// Resolves the next definition of a C-library function once (the fault
// injector's resolver). Returns null when it cannot be found; callers then
// fail the call with ENOSYS.
using dorvfault::core::next_fn;

// Real clocks, in nanoseconds.
int64_t real_realtime_ns();
int64_t real_monotonic_ns();

// The daemon's wall clock, in nanoseconds since the epoch.
int64_t daemon_realtime_ns();

// A daemon duration converted to the real duration to wait (rounded up, so a
// wait never ends before the daemon's clock has passed its end), and back.
int64_t to_real_ns(int64_t daemon_ns);
int64_t to_daemon_ns(int64_t real_ns);

// Formats "t=SECONDS.MILLIS " (the daemon time) and the message into
// line[0..size), ending in one newline however long the message; returns the
// line's length.
size_t format_timed_line(char* line, size_t size, const char* fmt, va_list ap);

// Appends one line, prefixed with the daemon time, to the request log.
// Bounded to 1024 bytes; silently does nothing when no log is configured.
void reqlog(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

// Arms the daemon's fault rules (DORVSIM_FAULTS, DORVSIM_FAULTS_FILE) and
// turns the fault injector on; called once by the constructor, in the daemon.
void faults_start();

// A problem of the simulator itself: to stderr and to the request log.
void warn(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

}  // namespace dorvsim
