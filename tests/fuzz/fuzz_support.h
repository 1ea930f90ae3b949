// Shared by the fuzz targets: a private scratch file system for the daemon's
// fixed paths, a reset of the neighbour state between inputs, and a check
// that fails the run (abort: libFuzzer reports it as a crash).
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz {

// Moves the process into a private mount namespace with empty tmpfs on /tmp
// and /var, and /dev/log hidden, so inputs that reach the daemon's files
// touch only scratch copies. Needs root; exits the process when it fails.
void enter_scratch();

// Forgets everything the neighbour module holds (key-holder list, known-AP
// tables, 802.11r mask) and removes its files.
void reset_neighbours();

// Frees the known-AP tables and creates an empty one for each radio below
// `radios` (none: 0).
void fresh_tables(int radios);

[[noreturn]] void fail(const char* what);
inline void check(bool ok, const char* what)
{
    if (!ok)
        fail(what);
}

}  // namespace fuzz
