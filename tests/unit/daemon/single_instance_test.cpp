// One daemon at a time: a live daemon is found by the lock on its pid file or
// by its event socket taking a connection; what a dead one left counts for
// nothing; and a daemon that loses the race for the lock writes nothing.
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "base/files.h"
#include "base/paths.h"
#include "daemon/daemon.h"
#include "dorvfault.h"
#include "test_util.h"

namespace {

using single_instance_test = sandbox_test;

// A process that wrote and locked the pid file as a daemon does, and holds
// it until it is let go.
class pid_file_holder {
public:
    pid_file_holder()
    {
        int ready[2];
        if (pipe(ready) != 0 || pipe(release_) != 0)
            return;
        pid_ = fork();
        if (pid_ == 0) {
            close(release_[1]);
            char c = write_pid_file() == 0 ? 1 : 0;
            [[maybe_unused]] ssize_t n = write(ready[1], &c, 1);
            n = read(release_[0], &c, 1);
            _exit(0);
        }
        close(ready[1]);
        close(release_[0]);
        char c = 0;
        held_ = read(ready[0], &c, 1) == 1 && c == 1;
        close(ready[0]);
    }
    ~pid_file_holder()
    {
        close(release_[1]);
        if (pid_ > 0)
            waitpid(pid_, nullptr, 0);
    }
    pid_t pid() const { return pid_; }
    bool held() const { return held_; }

private:
    pid_t pid_ = -1;
    int release_[2] = {-1, -1};
    bool held_ = false;
};

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

// The pid file is mode 0200, which only root reads: the tests also run as
// an ordinary user, who makes it readable to look at it.
void readable_pid_file()
{
    ASSERT_EQ(chmod(paths::pid_file, 0600), 0);
}

TEST_F(single_instance_test, LockedPidFileIsALiveDaemonAndIsNotWritten)
{
    pid_file_holder first;
    ASSERT_TRUE(first.held());
    readable_pid_file();
    const std::string bytes = testutil::read_file(paths::pid_file);
    pid_t holder = 0;
    EXPECT_TRUE(other_daemon_running(&holder));
    EXPECT_EQ(holder, first.pid());
    EXPECT_EQ(write_pid_file(), PID_FILE_HELD);
    EXPECT_EQ(testutil::read_file(paths::pid_file), bytes);
}

TEST_F(single_instance_test, LeftoversOfADeadDaemonAreTakenOver)
{
    {
        pid_file_holder dead;
        ASSERT_TRUE(dead.held());
    }
    unique_fd gone = bind_at(paths::event_socket);
    gone.reset();  // the socket file stays, served by nobody
    pid_t holder = -1;
    EXPECT_FALSE(other_daemon_running(&holder));
    EXPECT_EQ(holder, 0);
    EXPECT_EQ(write_pid_file(), 0);
    readable_pid_file();
    char want[8] = {};
    snprintf(want, sizeof want, "%d\n", static_cast<int>(getpid()));
    EXPECT_EQ(testutil::read_file(paths::pid_file), std::string(want, sizeof want));
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

INSTANTIATE_TEST_SUITE_P(daemon, served_socket_test, ::testing::ValuesIn(socket_cases),
                         [](const auto& p) { return std::string(p.param.name); });

}  // namespace
