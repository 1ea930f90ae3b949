// The daemon's threads, which thread owns what, and the one order in which
// locks are taken. Every module's header refers here; nothing else in the
// code restates these rules.
#pragma once

// ---------------------------------------------------------------------------
// Threads
//
//  main thread        start-up, then blocks in pthread_join on the event loop.
//  event-loop thread  (eloop_thread) every timer handler: the start-up check,
//                     the 802.11r refresh it runs, the rogue-AP checks and all
//                     scans (which sleep on this thread).
//  event-socket thread (event_socket_thread) neighbour events from the peer.
//  signal thread      (signal_thread) the work of signal 10: shutdown.
//  fast-transition thread (ft_update_thread) the SIGRTMIN updates, one after
//                     another. It is apart from the signal thread so that an
//                     exit never waits behind an update stalled on configd.
//  The signal handlers themselves only write the signal number and value to
//  a pipe (write(2) is async-signal-safe): signal 10 to the signal thread's,
//  SIGRTMIN to the fast-transition thread's. No lock, allocation or I/O ever
//  happens in signal context. Both signals are blocked in every thread but
//  the signal thread, so handlers only ever interrupt that one.
//
// Locks, always taken in this order (a thread holding one may take only the
// ones below it). Each lives in the state record of the module that owns
// what it guards: ft_state(), scanning(), neighbours().
//
//  1. config_lock       one configuration-store transaction at a time in the
//                       whole process; held for a whole 802.11r refresh and a
//                       whole SIGRTMIN update, so the two never overlap.
//  2. scan_result_lock  held by process_scan_result for its whole run.
//  3. kh_lock           the key-holder list, kh_list_nonempty and the files
//                       /var/roam_key_holders, /tmp/ap2_macaddr.txt and
//                       /tmp/ft_key_changed.txt. Held for each whole update of
//                       them (an event, a scan match, a reload, a status
//                       change), never across a sleep or a configuration read.
//                       The transition script runs while it is held, so the
//                       script always sees a consistent set of files.
//  4. ht_mutex          the known-AP tables, inside each table operation.
//  (log_lock, inside log_msg, is a leaf: nothing is taken while holding it.)
//
// ft_enabled_vaps is atomic: it is written under config_lock by the refresh
// and read by the key-change writers under kh_lock. board() is written once
// by the main thread before any other thread starts and only read after.
//
// Shutdown (signal 10) runs on the signal thread. It removes the files first,
// then takes config_lock, kh_lock and ht_mutex each with a bounded wait before
// freeing what they guard; what it cannot lock in time (a thread stuck in a
// configuration read, say) is left to the end of the process rather than
// freed under a running thread. It cancels the scan timers through the event
// loop's own lock (stop_scan_scheduler) and ends the process with _exit, so no static destructor
// runs while the other threads are still alive.
// ---------------------------------------------------------------------------
