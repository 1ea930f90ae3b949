// Running shell commands: one wrapper in the manner of system and one in the
// manner of popen. Children start with an empty signal mask and default
// signal dispositions, in a process group of their own, and each has a
// bound: a child still running child_time_limit seconds after its start is
// killed with its whole group and logged. Any thread may call them.
#pragma once

#include <cstddef>
#include <string>

#ifdef DORVAND_UNIT_TEST
// The unit tests' build of the libraries: a test may lower the bound, so
// that a hung child costs it a second rather than thirty.
extern int child_time_limit;
#else
inline constexpr int child_time_limit = 30;  // seconds
#endif

// Formats a command into a buffer of `limit` bytes (longer commands are cut),
// runs it through /bin/sh and waits at most child_time_limit seconds.
// Returns the wait status (a killed child's shows SIGKILL), or -1 when the
// shell could not be started (errno set).
int shell_run(size_t limit, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Runs `command` through /bin/sh and keeps at most `max_bytes` of its standard
// output in `out` (the rest is read and dropped), within the same bound.
// Returns 0 when the command was started (its output may be empty), -1 when
// it could not be (errno set).
int shell_read(const char* command, std::string& out, size_t max_bytes = 4096);

// Kills the process group of every child still running. The exit clean-up
// calls it so that no child outlives the daemon. Any thread.
void shell_kill_all();
