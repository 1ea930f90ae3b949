// Signal 10 against work in progress on another thread: the exit must not
// strand a scan match that holds the key-holder lock and wants the tables.
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "daemon/daemon.h"
#include "base/files.h"
#include "board/board.h"
#include "neighbours/neighbours.h"
#include "test_util.h"

namespace {

using exit_signal_test = sandbox_test;

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
        while (file_exists(testutil::at("/tmp/dorvand.pid").c_str()))
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
    EXPECT_FALSE(testutil::exists(testutil::at("/var/roam_key_holders"))) << "the append in flight outlived the exit";
}

}  // namespace
