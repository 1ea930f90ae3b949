// Children of the daemon: their output read whole and their shell's status;
// children that cannot be started, that hang past their bound, and kernels
// without pidfds: the shell wrappers report the failure or kill the child
// and log it, and what was read before the kill is kept.
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <cerrno>
#include <cstddef>
#include <string>
#include <thread>
#include <vector>

#include "base/spawn.h"
#include "dorvfault.h"
#include "test_util.h"

#ifndef SYS_pidfd_open
#define SYS_pidfd_open 434
#endif

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

// Runs the hung children of the bound's test: a command run and a command
// read, both killed with their groups after the bound and logged.
void check_hung_children()
{
    int status = shell_run(64, "sleep %d", 20);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << status;
    std::string out;
    EXPECT_EQ(shell_read("printf partial; exec sleep 20", out), 0);
    EXPECT_EQ(out, "partial");
    EXPECT_EQ(testutil::log_count("[dorvand] Killed \"sleep 20\": still running after 1 s\n"), 1);
    EXPECT_EQ(testutil::log_count("[dorvand] Killed \"printf partial; exec sleep 20\": still running after 1 s\n"), 1);
}

TEST_F(spawn_fault_test, hung_children_are_killed_at_the_bound)
{
    child_time_limit = 1;
    check_hung_children();
    // Output past the limit is read and dropped, however it arrives.
    std::string out;
    EXPECT_EQ(shell_read("printf abcd; sleep 0.1; printf ef", out, 4), 0);
    EXPECT_EQ(out, "abcd");
}

// The exit's clean-up kills every child it knows of: eight at once; a
// ninth goes unlisted and runs on.
TEST_F(spawn_fault_test, exit_kills_the_listed_children)
{
    const std::string dir = testutil::at("/tmp");
    std::vector<int> status(9, -2);
    std::vector<std::thread> runs;
    for (int i = 0; i < 9; ++i)
        runs.emplace_back(
            [&status, &dir, i] { status[i] = shell_run(128, "touch %s/child%d; exec sleep 2", dir.c_str(), i); });
    for (int i = 0; i < 9; ++i)
        for (int wait = 0; wait < 1000 && !testutil::exists(dir + "/child" + std::to_string(i)); ++wait)
            usleep(10000);
    shell_kill_all();
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

// What an older kernel says to pidfd_open, on this thread and its children
// only. False where a filter cannot be installed (under an emulator).
bool refuse_pidfd_open()
{
    sock_filter prog[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_pidfd_open, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog fprog{static_cast<unsigned short>(sizeof prog / sizeof prog[0]), prog};
    return prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &fprog) == 0 &&
           syscall(SYS_pidfd_open, getpid(), 0) == -1 && errno == ENOSYS;
}

// Output is read whole however it arrives, and the status is the shell's.
void check_ordinary_children()
{
    std::string out;
    EXPECT_EQ(shell_read("printf a; sleep 0.1; printf bc; sleep 0.1; printf def", out), 0);
    EXPECT_EQ(out, "abcdef");
    int status = shell_run(16, "exit %d", 3);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
}

TEST_F(spawn_fault_test, ordinary_children)
{
    check_ordinary_children();
    // A second of silence is not the end of the output.
    std::string out;
    EXPECT_EQ(shell_read("sleep 1.2; printf late", out), 0);
    EXPECT_EQ(out, "late");
}

// Without pidfds the wait naps instead: the status, the output and the
// bound are the same.
TEST_F(spawn_fault_test, without_pidfds_children_are_waited_for_the_same)
{
    child_time_limit = 1;
    bool refused = false;
    // The filter stays with the thread that installs it, which then ends.
    std::thread old_kernel([&refused] {
        refused = refuse_pidfd_open();
        if (!refused)
            return;
        check_ordinary_children();
        check_hung_children();
    });
    old_kernel.join();
    if (!refused)
        GTEST_SKIP() << "no seccomp filter here (an emulator?): the fallback is not reached";
}

}  // namespace
