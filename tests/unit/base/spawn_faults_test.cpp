// Children of the daemon: their output read whole and their shell's status;
// children that cannot be started or that hang past their bound: the shell
// wrappers report the failure or kill the child and log it, and what was
// read before the kill is kept.
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "base/spawn.h"
#include "dorvfault.h"
#include "test_util.h"

namespace {

class spawn_fault_test : public sandbox_test {
  protected:
    void TearDown() override { child_time_limit = 30; }
};

TEST_F(spawn_fault_test, a_child_that_cannot_start_is_reported_with_its_errno)
{
    const struct {
        const char* rule;
        int err;
        bool read;  // shell_read (else shell_run)
    } rows[] = {
        {"spawn path=/bin/sh errno=EAGAIN", EAGAIN, false},
        {"spawn path=/bin/sh errno=ENOMEM", ENOMEM, true},
        {"pipe2 errno=EMFILE", EMFILE, true},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.rule);
        dorvfault::handle h = dorvfault::arm(r.rule);
        std::string out = "stale";
        errno = 0;
        int rc = r.read ? shell_read("printf x", out) : shell_run(16, "exit %d", 0);
        int err = errno;
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(err, r.err);
        EXPECT_EQ(out, r.read ? "" : "stale");
        EXPECT_EQ(dorvfault::fired(h), 1u);
        dorvfault::reset();
    }
}

// A wait for output that fails ends the read; an interrupted one goes on.
TEST_F(spawn_fault_test, a_failed_wait_for_output_ends_the_read)
{
    std::string out;
    dorvfault::arm("poll fd=pipe errno=EINTR");
    EXPECT_EQ(shell_read("printf abc", out), 0);
    EXPECT_EQ(out, "abc");
    dorvfault::reset();
    dorvfault::arm("poll fd=pipe errno=ENOMEM");
    EXPECT_EQ(shell_read("printf abc", out), 0);
    EXPECT_EQ(out, "");
}

// A command run and a command read, both killed with their groups after the
// bound and logged; output past the limit is read and dropped, however it
// arrives.
TEST_F(spawn_fault_test, hung_children_are_killed_at_the_bound)
{
    child_time_limit = 1;
    int status = shell_run(64, "sleep %d", 20);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::string out;
    EXPECT_EQ(shell_read("printf partial; exec sleep 20", out), 0);
    EXPECT_EQ(out, "partial");
    EXPECT_EQ(testutil::log_count("[dorvand] Killed \"sleep 20\": still running after 1 s\n"), 1);
    EXPECT_EQ(testutil::log_count("[dorvand] Killed \"printf partial; exec sleep 20\": still running after 1 s\n"), 1);
    EXPECT_EQ(shell_read("printf abcd; sleep 0.1; printf ef", out, 4), 0);
    EXPECT_EQ(out, "abcd");
}

// True once thread `tid` of this process waits in the kernel in a poll or a
// nap: a shell wrapper's wait for its child, which it has listed by then.
bool waits_for_child(pid_t tid)
{
    const std::string where = testutil::read_file("/proc/self/task/" + std::to_string(tid) + "/wchan");
    return where.find("poll") != std::string::npos || where.find("sleep") != std::string::npos;
}

// The exit's clean-up kills every child it knows of: eight at once; a
// ninth goes unlisted and runs on until it is let go.
TEST_F(spawn_fault_test, exit_kills_the_listed_children)
{
    const std::string go = testutil::at("/tmp/go");
    std::vector<int> status(9, -2);
    std::vector<std::atomic<pid_t>> tids(9);
    std::vector<std::thread> runs;
    for (int i = 0; i < 9; ++i)
        runs.emplace_back([&status, &tids, &go, i] {
            tids[i] = gettid();
            status[i] = shell_run(256, "until [ -e %s ]; do sleep 0.01; done", go.c_str());
        });
    for (int i = 0; i < 9; ++i)
        ASSERT_TRUE(testutil::eventually([&] { return tids[i] && waits_for_child(tids[i]); }));
    shell_kill_all();
    testutil::write_file(go, "");
    for (auto& t : runs)
        t.join();
    int killed = 0;
    int ended = 0;
    for (int s : status) {
        killed += WIFSIGNALED(s) && WTERMSIG(s) == SIGKILL;
        ended += WIFEXITED(s) && WEXITSTATUS(s) == 0;
    }
    EXPECT_EQ(killed, 8);
    EXPECT_EQ(ended, 1);
}

// Output is read whole however it arrives, a second of silence included,
// and the status is the shell's.
TEST_F(spawn_fault_test, ordinary_children)
{
    std::string out;
    EXPECT_EQ(shell_read("printf a; sleep 0.1; printf bc; sleep 1.2; printf def", out), 0);
    EXPECT_EQ(out, "abcdef");
    int status = shell_run(16, "exit %d", 3);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
}

}  // namespace
