// One daemon at a time, where the end-to-end recovery tests cannot reach: a
// pid file that cannot be emptied, and event sockets that only look live;
// and the whole life of a daemon started from a test: detached, alone, and
// gone with its files on signal 10.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/files.h"
#include "base/paths.h"
#include "daemon/daemon.h"
#include "dorvfault.h"
#include "test_util.h"

namespace {

using single_instance_test = sandbox_test;

unique_fd bind_at(const char* path)
{
    unique_fd fd(socket(AF_UNIX, SOCK_DGRAM, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) != 0)
        ADD_FAILURE() << "bind " << path << ": " << strerror(errno);
    return fd;
}

// A pid file that cannot be emptied is left as it was, and not held: the
// daemon runs on without one.
TEST_F(single_instance_test, PidFileThatCannotBeTruncatedIsLeftAlone)
{
    testutil::write_file(paths::pid_file, "1234567890\n");
    dorvfault::arm("ftruncate path=*/tmp/dorvand.pid errno=EIO");
    errno = 0;
    EXPECT_EQ(write_pid_file(), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(testutil::read_file(paths::pid_file), "1234567890\n");
    pid_t holder = -1;
    EXPECT_FALSE(other_daemon_running(&holder));
}

struct socket_case {
    const char* name;
    const char* bound;  // where the live socket is bound
    void (*plant)();    // what then names /tmp/roam_sock
    bool running;
};

void PrintTo(const socket_case& c, std::ostream* os)
{
    *os << c.name;
}

const socket_case socket_cases[] = {
    {"served", "/tmp/roam_sock", [] {}, true},
    {"link_to_a_live_socket", "/tmp/elsewhere",
     [] { ASSERT_EQ(symlink(testutil::at("/tmp/elsewhere").c_str(), paths::event_socket), 0); }, false},
    {"another_users_socket", "/tmp/roam_sock",
     [] {
         if (geteuid() != 0)
             GTEST_SKIP() << "only root gives a socket to another user";
         ASSERT_EQ(chown(paths::event_socket, 65534, 65534), 0);
     },
     false},
};

class served_socket_test : public single_instance_test, public ::testing::WithParamInterface<socket_case> {};

TEST_P(served_socket_test, OnlyRootsOwnLiveSocketCounts)
{
    const socket_case& c = GetParam();
    unique_fd live = bind_at(testutil::at(c.bound).c_str());
    c.plant();
    if (IsSkipped())
        return;
    pid_t holder = -1;
    EXPECT_EQ(other_daemon_running(&holder), c.running);
    EXPECT_EQ(holder, 0);
}

// Starts daemon_main in a child, as the init script would: true when the
// child ended with 0, as daemon() ends it, going on in a child of its own.
bool start_daemon()
{
    pid_t starter = fork();
    if (starter == 0)
        _exit(daemon_main());
    int status = -1;
    return waitpid(starter, &status, 0) == starter && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The pid a started daemon logs (0 before it has): the daemon is killed
// when the test ends before it is seen to end.
struct started_daemon {
    pid_t pid = 0;
    ~started_daemon()
    {
        if (pid > 0)
            kill(pid, SIGKILL);
    }
    bool logged()
    {
        const std::string log = testutil::log_text(), mark = "[dorvand] daemon_pid = ";
        size_t at = log.find(mark);
        pid = at == std::string::npos ? 0 : std::atoi(log.c_str() + at + mark.size());
        return pid > 0;
    }
};

TEST_F(single_instance_test, DetachedDaemonRunsAloneAndLeavesNothingOnSignal10)
{
    testutil::write_file(paths::key_holders, std::string(16, '\0'));
    ASSERT_TRUE(start_daemon());
    started_daemon d;
    ASSERT_TRUE(testutil::eventually([&] { return d.logged(); }));
    pid_t holder = -1;
    ASSERT_TRUE(testutil::eventually([&] { return other_daemon_running(&holder); }));
    struct stat st {};
    EXPECT_TRUE(stat(paths::pid_file, &st) == 0 && (st.st_mode & 07777) == 0200) << std::oct << st.st_mode;
    const std::string text = std::to_string(d.pid) + "\n";
    EXPECT_EQ(testutil::log_count("[dorvand] daemon_pid = " + std::to_string(d.pid) + " | " + text), 1);
    if (geteuid() == 0) {  // a file of mode 0200 is root's alone to read, and so is its lock
        EXPECT_EQ(holder, d.pid);
        EXPECT_EQ(testutil::read_file(paths::pid_file), text + std::string(8 - text.size(), '\0'));
    }
    // A second one, started while the first runs, changes nothing.
    EXPECT_EXIT(_exit(daemon_main()), testing::ExitedWithCode(1), "Another dorvand .*: not started");

    ASSERT_EQ(kill(d.pid, 10), 0);
    ASSERT_TRUE(testutil::eventually([] { return testutil::log_count("[dorvand] Exiting from daemon\n") == 1; }));
    d.pid = 0;
    for (const char* gone : {paths::pid_file, paths::event_socket, paths::key_holders})
        EXPECT_FALSE(testutil::exists(gone)) << gone;
    EXPECT_TRUE(testutil::eventually([&] { return !other_daemon_running(&holder); }));
}

// Without its event-loop thread the daemon has nothing to run: it says so
// and ends by itself. Without the event-socket thread it runs on.
TEST_F(single_instance_test, DaemonMissingAThread)
{
    for (int nth : {3, 4}) {  // after the signal and 802.11r threads: the event-loop, the event-socket thread
        SCOPED_TRACE(nth);
        testutil::reset_sandbox();
        dorvfault::handle h = dorvfault::arm("thread nth=" + std::to_string(nth) + " errno=EAGAIN", true);
        ASSERT_TRUE(start_daemon());  // the rule fires in the daemon's copy of it
        dorvfault::disarm(h);
        started_daemon d;
        ASSERT_TRUE(testutil::eventually([&] { return d.logged(); }));
        ASSERT_TRUE(testutil::eventually([] {
            return testutil::log_count("Failed to create the thread [11 | Resource temporarily unavailable ]\n") == 1;
        }));
        if (nth == 4) {
            ASSERT_EQ(kill(d.pid, 10), 0);
        }
        const std::string end = nth == 3 ? "daemon exited\n" : "[dorvand] Exiting from daemon\n";
        ASSERT_TRUE(testutil::eventually([&] { return testutil::log_count(end) == 1; }));
        d.pid = 0;
        EXPECT_EQ(testutil::log_count("[dorvand] pthread_join failed[3|No such process] \n"), nth == 3 ? 1 : 0);
    }
}

INSTANTIATE_TEST_SUITE_P(daemon, served_socket_test, ::testing::ValuesIn(socket_cases),
                         [](const auto& p) { return std::string(p.param.name); });

}  // namespace
