// Signal 10 against work in progress on another thread: the exit must not
// strand a scan match that holds the key-holder lock and wants the tables,
// nor wait for ever on a thread that keeps its locks.
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "board/board.h"
#include "daemon/daemon.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"
#include "test_util.h"

namespace {

using exit_signal_test = sandbox_test;

// Runs in the death-test child: a worker holds the key-holder list as an
// update in progress does, waits until the clean-up has come to its locks
// (it has tried to remove the event socket, which this process never made),
// then hands over a scan result inside it, as a scan match does:
// the match takes ht_mutex and the append reaches the key-holder file.
// Taking the tables' lock before the key-holder lock would leave the worker
// stuck and the list unfreed.
[[noreturn]] void exit_during_scan_match()
{
    board().radio_count = 2;
    testutil::install_fake_script();
    write_pid_file();
    init_tables();
    const char record[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F, 1, 0};
    testutil::write_file(testutil::at("/var/roam_key_holders"), std::string(record, sizeof record));
    reload_key_holders();
    setup_signals();
    std::atomic<bool> holding{false};
    std::thread match([&holding] {
        kh_update update;
        holding = true;
        while (testutil::log_count("/tmp/roam_sock file (") == 0)
            usleep(1000);
        const scan_ap_record seen{{0x02, 0x00, 0x06, 0x00, 0x00, 0x10}, 6, 0};
        key_holders_from_scan(&seen, 1, 0);
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
    EXPECT_EQ(testutil::log_count("0a:1b:2c:3d:4e:5f is already cached in MKH\n"), 1)
        << "the worker's append never ran";
    EXPECT_EQ(testutil::log_count("Removing 0a:1b:2c:3d:4e:5f\n"), 1);
    EXPECT_EQ(testutil::log_count("busy; left to the end of the process"), 0);
    EXPECT_EQ(testutil::log_count("[dorvand] Exiting from daemon\n"), 1);
    EXPECT_FALSE(testutil::exists(testutil::at("/var/roam_key_holders"))) << "the append in flight outlived the exit";
}

// A thread that keeps the key-holder list and the tables locked (stuck in
// an update) past the clean-up's waits: what they guard is left to the end
// of the process, and the clean-up ends it as usual.
[[noreturn]] void exit_while_locks_stay_held()
{
    board().radio_count = 2;
    init_tables();
    testutil::write_file(testutil::at("/var/roam_key_holders"), std::string(16, '\0'));
    reload_key_holders();
    setup_signals();
    std::atomic<bool> holding{false};
    std::thread stuck([&holding] {
        kh_update update;
        neighbours().ht_mutex.lock();
        holding = true;
        pause();
    });
    while (!holding)
        usleep(1000);
    kill(getpid(), 10);
    sleep(30);  // the clean-up ends the process
    _exit(1);
}

TEST_F(exit_signal_test, LocksHeldPastTheWaitAreLeftToTheEnd)
{
    EXPECT_EXIT(exit_while_locks_stay_held(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(testutil::log_count("[dorvand] key-holder list busy; left to the end of the process\n"), 1);
    EXPECT_EQ(testutil::log_count("[dorvand] known-AP tables busy; left to the end of the process\n"), 1);
    EXPECT_EQ(testutil::log_count("Removing "), 0);
    EXPECT_EQ(testutil::log_count("[dorvand] Exiting from daemon\n"), 1);
}

}  // namespace
