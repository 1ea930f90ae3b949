// Neighbour events: each type applied through handle_neighbour_event, short
// and unknown datagrams, events for radios without a table, and the socket.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "board/board.h"
#include "dorvfault.h"
#include "nb_fixture.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::log_count;
using testutil::read_bytes;
using testutil::script_runs;

class event_socket_test : public neighbours_test {};

const mac_t neighbour = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50};

TEST_F(event_socket_test, ApDeletionRemovesDerivedKeyHoldersAndAlwaysRunsTheScript)
{
    neighbours().ft_enabled_vaps = 1;
    const mac_t other = {0x0A, 0x1B, 0x2C, 0x3D, 0x4F, 0x50};
    send_event(neighbour, AP_ADDITION, 0, 0);
    send_event(neighbour, KH_ADDITION, 0, 0);
    EXPECT_EQ(read_bytes(testutil::at("/var/roam_key_holders")), record_of({0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, 1, 0));
    send_event(neighbour, KH_ADDITION, 0, 0);  // listed already: no record, no script
    send_event(neighbour, KH_ADDITION, 0, 1);
    send_event(other, KH_ADDITION, 1, 0);
    ASSERT_EQ(list_macs().size(), 3u);
    ASSERT_EQ(script_runs(), 3);
    // Radio 1's key holder brings 4E:40, 4E:50 and 4E:60: only the first is new.
    const std::string key = "ap2_macaddr_wifi0vap0=", n = " 0A:1B:2C:3D:4E:", o = " 0A:1B:2C:3D:4F:";
    EXPECT_EQ(file_text("/tmp/ap2_macaddr.txt"),
              key + (n + "50" + n + "60" + n + "70" + n + "40" + o + "51" + o + "71" + o + "91\n").substr(1));

    send_event(neighbour, AP_DELETION, 0, 0);
    const mac_t other_kh = {0x0A, 0x1B, 0x2C, 0x3D, 0x4F, 0x6F};
    EXPECT_TRUE(table_rows(0).empty());
    EXPECT_EQ(list_macs(), std::vector<mac_t>{other_kh});
    EXPECT_EQ(read_bytes(testutil::at("/var/roam_key_holders")), record_of(other_kh, 1, 1));
    EXPECT_EQ(log_count("Removing 0a:1b:2c:3d:4e:5f\n"), 1);
    EXPECT_EQ(log_count("Removing 0a:1b:2c:3d:4e:4f\n"), 1);
    EXPECT_EQ(script_runs(), 4);
    // Only radio 0's BSSIDs of the neighbour go; each kept one gains a blank.
    EXPECT_EQ(file_text("/tmp/ap2_macaddr.txt"), key + (n + "40" + o + "51" + o + "71" + o + "91 \n").substr(1));

    // Nothing left to find: the script still runs.
    send_event(neighbour, AP_DELETION, 0, 0);
    EXPECT_EQ(list_macs(), std::vector<mac_t>{other_kh});
    EXPECT_EQ(script_runs(), 5);
    EXPECT_EQ(log_count("Failed"), 0) << "every file write went well";
}

TEST_F(event_socket_test, SocketReplacesAStaleFileAndReportsBindFailure)
{
    const std::string sock = testutil::at("/tmp/roam_sock");
    testutil::write_file(sock, "stale");
    int fd = open_event_socket();
    ASSERT_GE(fd, 0);
    struct stat st {};
    ASSERT_EQ(stat(sock.c_str(), &st), 0);
    EXPECT_TRUE(S_ISSOCK(st.st_mode));
    EXPECT_TRUE(fcntl(fd, F_GETFD) & FD_CLOEXEC);
    close(fd);

    ASSERT_EQ(unlink(sock.c_str()), 0);
    ASSERT_EQ(mkdir(sock.c_str(), 0755), 0);  // cannot be unlinked, so the bind fails
    EXPECT_EQ(open_event_socket(), -1);
    EXPECT_EQ(log_count(" Bind failed with return value [98|Address already in use]\n"), 1);
    dorvfault::arm("socket fd=unix errno=EMFILE");
    EXPECT_EQ(open_event_socket(), -1);
    EXPECT_EQ(log_count("socket creation failed[24|Too many open files]\n"), 1);
}

// Sends `len` bytes of `bytes` to the event socket as `uid` (root alone may
// act as another user); false when it could not be sent.
bool send_as(uid_t uid, const uint8_t* bytes, size_t len)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, testutil::at("/tmp/roam_sock").c_str(), sizeof addr.sun_path - 1);
    auto send = [&] {
        int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
        bool sent = sendto(fd, bytes, len, 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == ssize_t(len);
        close(fd);
        return sent;
    };
    if (uid == geteuid())
        return send();
    pid_t pid = fork();
    if (pid == 0)
        _exit(setuid(uid) == 0 && send() ? 0 : 1);
    int status = -1;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// The thread serves the socket in a child process (it never ends): only
// root's datagrams are applied, whatever the socket's mode; an empty one
// changes nothing.
TEST_F(event_socket_test, ThreadAppliesOnlyRootsDatagrams)
{
#ifdef __SANITIZE_THREAD__
    // The thread sanitizer's runtime cannot start threads in the child of a
    // fork; the other builds run this test.
    GTEST_SKIP() << "forks a child that starts threads";
#endif
    struct server {
        pid_t pid = fork();
        ~server()
        {
            if (pid > 0)
                kill(pid, SIGKILL), waitpid(pid, nullptr, 0);
        }
    } s;
    ASSERT_GE(s.pid, 0);
    if (s.pid == 0) {
        event_socket_thread(nullptr);
        _exit(1);
    }
    const std::string sock = testutil::at("/tmp/roam_sock");
    struct stat st {};
    ASSERT_TRUE(testutil::eventually([&] { return stat(sock.c_str(), &st) == 0 && (st.st_mode & 0777) == 0600; }));
    const uint8_t event[9] = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50, KH_ADDITION, 0, 0};
    const bool root = geteuid() == 0;
    EXPECT_TRUE(send_as(geteuid(), event, sizeof event));
    EXPECT_TRUE(send_as(geteuid(), event, 0));
    if (root) {
        ASSERT_EQ(chmod(sock.c_str(), 0666), 0);
        EXPECT_TRUE(send_as(65534, event, sizeof event));
    }
    // One wait before each datagram and after the last.
    ASSERT_TRUE(testutil::eventually([&] { return log_count("Waiting for events from  pxlmd\n") == (root ? 4 : 3); }));
    const std::string dropped = " dropped: only root may send events\n";
    if (root) {
        EXPECT_EQ(file_macs(), (std::vector<mac_t>{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}}));
        EXPECT_EQ(log_count("no data \n"), 1);
        EXPECT_EQ(log_count("[dorvand] Event from uid 65534" + dropped), 1);
    } else {
        EXPECT_EQ(log_count("[dorvand] Event from uid " + std::to_string(geteuid()) + dropped), 2);
        EXPECT_FALSE(testutil::exists(testutil::at("/var/roam_key_holders")));
    }
}

}  // namespace
