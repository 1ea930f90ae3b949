// The daemon's life: start-up, its threads and signals, and the clean-up.
#pragma once

#include <sys/types.h>

#include <csignal>

// Runs the whole start-up sequence, waits for the event-loop thread and
// returns main's exit status.
int daemon_main();

// Whether another daemon is alive beside this process, found without
// changing anything: it holds the lock of /tmp/dorvand.pid (its pid in
// *holder), or its /tmp/roam_sock takes a connection (*holder 0). A pid file
// or a socket left by a dead daemon counts for nothing. Main thread, before
// detaching.
bool other_daemon_running(pid_t* holder);

inline constexpr int PID_FILE_HELD = 1;

// Writes /tmp/dorvand.pid: the pid and a newline, NUL-padded to 8 bytes,
// mode 0200, and keeps it write-locked until the process ends. Returns 0,
// -1 with errno set when it cannot be opened, or PID_FILE_HELD, writing
// nothing, when another process holds its lock.
int write_pid_file();

// Creates one known-AP table per radio and empties the key-holder list.
void init_tables();

// The clean-up of signal 10: removes the daemon's files, frees the tables and
// the list, cancels the scan timers, closes the configuration handle and
// ends the process with status 0. Signal thread only; never returns.
[[noreturn]] void exit_handler(int signo);

// Installs the signal-10 handler; on failure logs and exits with 255.
void register_exit_signal(struct sigaction* action, int signo, void (*handler)(int));
// Installs a SA_SIGINFO handler; on failure logs and returns.
void register_info_signal(struct sigaction* action, int signo, void (*handler)(int, siginfo_t*, void*));

// Blocks signal 10 and SIGRTMIN in the calling thread (and so in every thread
// it starts later), installs their handlers, which only record the signal
// and wake a thread through a pipe, and starts the signal thread and the
// fast-transition thread that do their work. Main thread, before the worker
// threads are created.
void setup_signals();

// Thread entries.
void* eloop_thread(void* arg);
void* signal_thread(void* arg);
