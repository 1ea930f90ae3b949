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
//  event-socket thread (event_socket_thread) neighbour events from the peer
//                     (root's only; others are dropped). While a write of
//                     the key-holder files has failed, it also writes them
//                     again from the list every kh_files_retry_secs; at the
//                     same wake-up it checks that /tmp/roam_sock still names
//                     its socket and binds it again when it does not (a
//                     stream of events without such a pause gets the check
//                     once a minute, between two events).
//  signal thread      (signal_thread) the work of signal 10: shutdown.
//  fast-transition thread (ft_update_thread) the SIGRTMIN updates, one after
//                     another. It is apart from the signal thread so that an
//                     exit never waits behind an update stalled on configd.
//  The signal handlers themselves only record and wake (atomics and write(2)
//  are async-signal-safe): signal 10 writes its note to the signal thread's
//  pipe; SIGRTMIN ORs its value into the lock-free word ft_pending (bit 32
//  marks "pending") and writes one wake byte to the fast-transition
//  thread's pipe. That thread takes the whole word at once and runs one
//  update with the merged VAP bits, so a storm of signals costs one update
//  and no value is lost when the pipe is full. No lock, allocation or I/O
//  ever happens in signal context. Both signals are blocked in every thread
//  but the signal thread, so handlers only ever interrupt that one.
//
// Children (base/spawn.h): every script and command runs in its own process
// group and is killed with it when still running child_time_limit (30) s
// after its start; the bound is kept on the monotonic clock. No lock is held
// across an unbounded wait: the longest waits under a lock are a child's
// bound and a configuration read's own time-out.
//
// Locks, always taken in this order (a thread holding one may take only the
// ones below it). Each lives in the state record of the module that owns
// what it guards: ft_state(), scanning(), neighbours(). The neighbour
// module's record is its own: other modules reach locks 3 to 5 only through
// its operations, which take them inside (neighbours/neighbours.h).
//
//  1. config_lock       one configuration-store transaction at a time in the
//                       whole process; held for a whole 802.11r refresh and a
//                       whole SIGRTMIN update, so the two never overlap.
//  2. scan_result_lock  held by process_scan_result for its whole run.
//  3. script_lock       one whole update of the key-holder files and the
//                       transition script it asks for (kh_update). The script
//                       runs holding this lock only, so it always sees the
//                       whole of one update, and a later update waits for it
//                       (at most the child bound) without holding kh_lock.
//  4. kh_lock           the key-holder list, kh_list_nonempty, script_wanted
//                       and the files /var/roam_key_holders,
//                       /tmp/ap2_macaddr.txt and /tmp/ft_key_changed.txt. Held
//                       for each whole update of them (an event, a scan match,
//                       a reload, a status change), never across a sleep, a
//                       child or a configuration read. files_stale is atomic
//                       so the event-socket thread can test it unlocked.
//  5. ht_mutex          the known-AP tables, inside each table operation.
//  (log_lock, inside log_msg, is a leaf: nothing is taken while holding it.)
//  Outside the order: event_socket_lock is taken holding no other lock and
//  holds only log_lock inside. The event-socket thread holds it for each
//  bind of /tmp/roam_sock, the first one and any later one; the shutdown holds it (with a bounded wait)
//  while it sets event_socket_closed and removes the socket, so no bind can
//  follow that removal and leave a socket behind the process.
//
// The scan databases: each report's first write cycle (process_scan_result,
// under scan_result_lock) checks the band's database once and puts an empty
// schema in place of one missing or without its tables; one SQLite cannot
// read is moved to <db>.corrupt first. An empty directory in its place is
// removed; what cannot be replaced is reported once and tried again at the
// next report. No per-row check is made.
//
// One daemon at a time: the pid file stays open and write-locked (a POSIX
// record lock) from its writing, after daemon(), to the end of the process;
// nothing else in the process may open that file, as closing any descriptor
// of it would drop the lock. Before detaching, a new daemon tests the lock
// (F_GETLK on a read-only, no-follow open) and connects to /tmp/roam_sock;
// a held lock or a socket that takes the connection makes it report to
// stderr and syslog and exit with status 1, having touched no file. The
// lock is taken before the file is truncated, so of two daemons racing
// past that test only one writes; the other logs and exits. Scan markers
// left by a killed daemon are removed right after the pid file is locked,
// before any scan can run.
//
// ft_enabled_vaps is atomic: it is written under config_lock by the refresh
// and read by the key-change writers under kh_lock. board() is written once
// by the main thread before any other thread starts and only read after.
//
// Shutdown (signal 10) runs on the signal thread. It removes the pid file and
// the event socket, then takes config_lock, kh_lock and ht_mutex each with a
// bounded wait (the last two through lock_neighbours_for_exit; never
// script_lock, so a hung script cannot hold it up), and only then removes
// /var/roam_key_holders, so no append in flight can recreate it. It kills the
// children still running and removes the marker of a scan cycle in progress
// (scan_state::marker_set) under marker_lock (a leaf, held around one file
// operation; the shutdown waits for it with a bound), after which no cycle
// creates a marker again. What it could not lock in time (a thread stuck in
// a configuration read, say) is left to the end of the process rather than
// freed under a running thread. It cancels the scan timers through the event
// loop's own lock (stop_scan_scheduler) and ends the process with _exit, so no
// static destructor runs while the other threads are still alive.
//
// Files: every fixed path the daemon writes is opened without following a
// link and only as its own regular file with one link (base/files.h); files
// replaced whole go through a temporary file created exclusively and renamed;
// the process starts with umask 022.
// ---------------------------------------------------------------------------
