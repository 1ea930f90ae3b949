// The timer event loop on which all periodic work of the daemon runs.
#pragma once

#include <cstdint>
#include <mutex>

#include "base/growable.h"

// Context values are pointer-sized integers; -1 given to eloop_cancel_timer
// matches any value.
using eloop_timeout_handler = void (*)(intptr_t ctx1, intptr_t ctx2);
using eloop_sock_handler = void (*)(int sock, intptr_t ctx1, intptr_t ctx2);
constexpr intptr_t ELOOP_ANY_CTX = -1;

struct eloop_timer {
    uint32_t expiry;  // absolute tick count of the times() clock
    intptr_t ctx1;
    intptr_t ctx2;
    eloop_timeout_handler handler;
};

struct eloop_reader {
    int sock;
    intptr_t ctx1;
    intptr_t ctx2;
    eloop_sock_handler handler;
};

struct eloop_data {
    intptr_t user_ctx = 0;
    int max_sock = 0;
    int reader_count = 0;
    growable_array<eloop_reader> readers;
    growable_array<eloop_timer> timers;  // ordered by expiry (signed 32-bit difference)
    int ticks_per_sec = 0;
    int reader_table_changed = 0;
    // Guards `timers` and the reader table. The loop runs on the event-loop
    // thread; the only other caller is the shutdown on the signal thread,
    // which cancels timers. Handlers run without it held.
    std::mutex lock;
};

extern eloop_data eloop;

// Clears the loop, stores the user context and reads the tick rate. Called
// once by main before any other loop operation.
void eloop_init(intptr_t user_ctx);

// One-shot timer after secs seconds and usecs microseconds. Returns 0, or -1
// when no memory is left. Timers due at the same tick run in the order added.
int eloop_add_timer(uint32_t secs, uint32_t usecs, eloop_timeout_handler handler, intptr_t ctx1, intptr_t ctx2);

// Removes every pending timer of handler whose contexts match (-1 matches
// any). Returns the number removed. Safe from any thread.
int eloop_cancel_timer(eloop_timeout_handler handler, intptr_t ctx1, intptr_t ctx2);

// Read sockets: the handler runs when sock is readable.
int eloop_register_read_sock(int sock, eloop_sock_handler handler, intptr_t ctx1, intptr_t ctx2);
void eloop_unregister_read_sock(int sock);

// Runs passes until neither a timer nor a reader is left, or select fails.
// At most one due timer runs per pass; after it, the allocator's free pages
// go back to the system (malloc_trim). Event-loop thread only.
void eloop_run();

// The loop's clock: the current times() value as a 32-bit tick count.
uint32_t eloop_now_ticks();
