// The coverage build (DORVAND_COVERAGE) writes gcov's counters out where the
// daemon ends without exit handlers (_exit), and also ends on SIGTERM, which
// its test sandbox sends instead of SIGKILL. In every other build the flush
// is nothing and SIGTERM keeps its default action.
#pragma once

#ifdef DORVAND_COVERAGE
extern "C" void __gcov_dump(void);
// Writes every counter of the process once; a later call or exit adds nothing.
#define DORV_FLUSH_COVERAGE() __gcov_dump()
inline constexpr bool coverage_build = true;
#else
#define DORV_FLUSH_COVERAGE() ((void)0)
inline constexpr bool coverage_build = false;
#endif

// The exit status of a coverage daemon ended by SIGTERM: the shell's 128 + 15.
inline constexpr int coverage_term_status = 143;
