// Helpers shared by the unit tests. Every test binary runs inside a private
// mount namespace (sandbox_main.cpp) where /tmp, /var and /usr/local/bin are
// fresh tmpfs mounts and /etc and /usr/sbin are writable overlays, so the
// daemon's fixed paths can be used as they are.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace testutil {

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
// one line to /tmp/script_runs per run.
void install_fake_script();
int script_runs();

}  // namespace testutil

// Base fixture: a clean sandbox before each test.
class sandbox_test : public ::testing::Test {
protected:
    void SetUp() override { testutil::reset_sandbox(); }
};
