// dorvand: neighbour key holders for fast roaming and background channel
// scans of a wireless access point.
#include <malloc.h>
#include <unistd.h>

#include "base/coverage.h"
#include "daemon/daemon.h"

int main()
{
    // One allocator arena for the whole process: the threads allocate little
    // and seldom at the same time, and an arena of their own each keeps the
    // pages of its busiest moment for the life of the daemon.
    mallopt(M_ARENA_MAX, 1);
    // The event-socket, signal and fast-transition threads are still running
    // when the event loop has ended: leave without running static destructors
    // under them. Nothing is buffered (the log is written line by line).
    int status = daemon_main();
    DORV_FLUSH_COVERAGE();
    _exit(status);  // GCOVR_EXCL_LINE: runs after the counters are written
}
