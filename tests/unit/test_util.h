// Helpers shared by the unit tests. Run as root, every test binary runs
// inside a private mount namespace (sandbox_main.cpp) where /tmp, /var and
// /usr/local/bin are fresh tmpfs mounts and /etc and /usr/sbin are writable
// overlays, so the daemon's fixed paths can be used as they are. Run by an
// ordinary user, it has no namespace: the fixed paths are moved under a
// private temporary root (test_root.cpp), and a test names a fixed path by
// at("/tmp/...").
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace testutil {

// The private root the fixed paths were moved under ("" in a namespace).
const std::string& test_root();
// Moves every fixed path under `dir`; false when one would not fit.
bool set_test_root(const std::string& dir);
// Where the fixed path `fixed` is for this run.
std::string at(const std::string& fixed);

std::string read_file(const std::string& path);
std::vector<unsigned char> read_bytes(const std::string& path);
void write_file(const std::string& path, const std::string& text, unsigned mode = 0644);
bool exists(const std::string& path);

// Empties /tmp and /var (only inside the sandbox), recreates /tmp/log and
// /tmp/run, and points the daemon's log at /tmp/log/dorvand_log.
void reset_sandbox();

// The daemon's log file as text.
std::string log_text();
// Number of times `needle` occurs in the log file.
int log_count(const std::string& needle);

// Installs an executable /usr/local/bin/fast_bss_transition.sh that appends
// one line to /tmp/script_runs per run (both under the test root).
void install_fake_script();
int script_runs();

// Polls `done` every 10 ms for up to 20 s: a bound for a loaded machine
// while another process or thread gets there, never a timing under test.
template <typename Pred> bool eventually(Pred done)
{
    for (int i = 0; i < 2000 && !done(); ++i)
        usleep(10000);
    return done();
}

}  // namespace testutil

// Base fixture: a clean sandbox before each test.
class sandbox_test : public ::testing::Test {
  protected:
    void SetUp() override { testutil::reset_sandbox(); }
};
