// Running shell commands: one wrapper in the manner of system and one in the
// manner of popen. Children start with an empty signal mask and default
// signal dispositions. Any thread may call them.
#pragma once

#include <cstddef>
#include <string>

// Formats a command into a buffer of `limit` bytes (longer commands are cut),
// runs it through /bin/sh and waits. Returns the wait status, or -1 when the
// shell could not be started (errno set).
int shell_run(size_t limit, const char* format, ...) __attribute__((format(printf, 2, 3)));

// Runs `command` through /bin/sh and keeps at most `max_bytes` of its standard
// output in `out` (the rest is read and dropped). Returns 0 when the command
// was started (its output may be empty), -1 when it could not be (errno set).
int shell_read(const char* command, std::string& out, size_t max_bytes = 4096);
