// Signal 10 against work in progress on other threads: the exit must not
// queue behind a SIGRTMIN update that waits on configd, and must not strand a
// scan match that holds the key-holder lock and wants the tables.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <mutex>
#include <thread>

#include "configstore/dbcom.h"
#include "daemon/daemon.h"
#include "base/files.h"
#include "board/board.h"
#include "ftstatus/ft_status.h"
#include "neighbours/neighbours.h"
#include "test_util.h"

namespace {

using exit_signal_test = sandbox_test;

// A configd that lets connections wait in its backlog and never answers.
unique_fd silent_configd()
{
    unique_fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, "/tmp/confd_get", sizeof addr.sun_path - 1);
    unlink(addr.sun_path);
    if (!fd.valid() || bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        listen(fd.get(), 4) != 0)
        fd.reset();
    return fd;
}

// Runs in the death-test child: starts the signal machinery, queues a
// SIGRTMIN whose update blocks on the silent configd, then sends signal 10.
// Exit status 0 comes only from the clean-up; 1 means it never ran.
[[noreturn]] void exit_during_stalled_update()
{
    unique_fd configd = silent_configd();
    if (!configd.valid())
        _exit(3);
    board().radio_count = 2;
    ft_state().config_handle = dbcom_init(nullptr, nullptr, DBCOM_UNIX_STREAM);
    init_tables();
    setup_signals();
    sigval value{};
    value.sival_int = 1;
    sigqueue(getpid(), SIGRTMIN, value);
    pollfd waiting{configd.get(), POLLIN, 0};
    if (poll(&waiting, 1, 5000) != 1)
        _exit(2);  // the update never reached configd
    kill(getpid(), 10);
    sleep(5);  // the clean-up gives up on the configuration lock after one second
    _exit(1);
}

TEST_F(exit_signal_test, DuringStalledUpdateEndsWithStatusZero)
{
    EXPECT_EXIT(exit_during_stalled_update(), testing::ExitedWithCode(0), "");
    std::string log = testutil::log_text();
    EXPECT_NE(log.find("Received " + std::to_string(SIGRTMIN) + " signal | 1[1] \n"), std::string::npos) << log;
    EXPECT_EQ(testutil::log_count("[dorvand] configuration read in progress; handle left to the end of the process\n"),
              1);
    EXPECT_EQ(testutil::log_count("[dorvand] Exiting from daemon\n"), 1);
    EXPECT_EQ(testutil::log_count("wifi0vap0 - 11rStatus"), 0) << "the update should still have been waiting";
}

// Runs in the death-test child: a worker takes kh_lock, waits until the
// clean-up has begun (the pid file is gone), appends to the key-holder file
// and prints a table, which takes ht_mutex, as a scan match does. Taking the tables' lock before the
// key-holder lock would leave the worker stuck and the list unfreed.
[[noreturn]] void exit_during_scan_match()
{
    board().radio_count = 2;
    write_pid_file();
    init_tables();
    auto* holder = new kh_entry{nullptr, nullptr, {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, 1, 0};
    dlist_append(&neighbours().kh_list, holder);
    setup_signals();
    std::atomic<bool> holding{false};
    std::thread match([&holding] {
        std::lock_guard<std::timed_mutex> hold(neighbours().kh_lock);
        holding = true;
        while (file_exists("/tmp/dorvand.pid"))
            usleep(1000);
        usleep(50000);  // let the clean-up reach its locks
        write_key_holders("a");  // an append still in flight
        traverse_hash_table(neighbours().known_ap_tables[0], "wlan0");
    });
    while (!holding)
        usleep(1000);
    kill(getpid(), 10);
    match.join();
    sleep(10);  // the clean-up ends the process
    _exit(1);
}

TEST_F(exit_signal_test, DuringScanMatchFreesTheKeyHolders)
{
    EXPECT_EXIT(exit_during_scan_match(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(testutil::log_count("mutex unlocked [traverse_hash_table] \n"), 1);
    EXPECT_EQ(testutil::log_count("Removing 0a:1b:2c:3d:4e:5f\n"), 1);
    EXPECT_EQ(testutil::log_count("busy; left to the end of the process"), 0);
    EXPECT_EQ(testutil::log_count("[dorvand] Exiting from daemon\n"), 1);
    EXPECT_FALSE(testutil::exists("/var/roam_key_holders")) << "the append in flight outlived the exit";
}

}  // namespace
