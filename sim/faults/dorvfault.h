// Fault injection in unit tests: arms rules that make C-library calls of the
// test process fail (or write short) the way a full disk, a lost socket or a
// refused spawn would, and tells whether they fired. The interposed calls
// are the ones the simulated access point fails (sim/README.md lists them
// and the rule language), linked into every unit-test binary.
//
//     auto h = dorvfault::arm("write path=/var/roam_key_holders nth=2 errno=ENOSPC");
//     ... run the code under test ...
//     EXPECT_EQ(dorvfault::fired(h), 1u);
//
// Every test binary's main ends each test by failing it when one of the
// rules it armed (without `optional`) never fired, then disarms them all.
// Arming and reset() are for the test's own thread, while no other thread
// of the test makes interposed calls; firing is safe from any thread and
// from signal handlers.
#pragma once

#include <string>
#include <vector>

namespace dorvfault {

struct handle {
    int slot = -1;
};

// Arms one rule (or several, separated by ';' or newlines: the handle is
// the last one's). Throws std::invalid_argument with a message naming the
// rule when it is refused, or when every one of the 64 slots is armed.
// `optional`: the rule may stay unfired without failing the test.
handle arm(const std::string& rule, bool optional = false);

// How often the rule failed a call so far; 0 for a handle of no rule.
unsigned fired(handle h);

// How many calls matched the rule so far (fired or not).
unsigned seen(handle h);

// The path of the rule's last firing ("" when none, or a call without one).
std::string fired_path(handle h);

// Disarms one rule; its counts stay readable until reset().
void disarm(handle h);

// Disarms every rule and forgets their counts.
void reset();

// The texts of the armed rules, not optional, that have not fired.
std::vector<std::string> unfired();

}  // namespace dorvfault
