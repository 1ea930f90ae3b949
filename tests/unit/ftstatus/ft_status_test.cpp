// The 802.11r status refresh and the SIGRTMIN update, against a fake
// configuration daemon.
#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "configstore/dbcom.h"
#include "daemon/daemon.h"
#include "ftstatus/ft_status.h"
#include "board/board.h"
#include "fake_configd.h"
#include "neighbours/neighbours.h"
#include "test_util.h"

using testutil::log_count;
using testutil::read_file;

namespace {

std::string key(int radio, int vap)
{
    return "system:vapSettings:vapSettingTable:wlan" + std::to_string(radio) + ":vap" + std::to_string(vap) +
           ":11rStatus";
}

class ft_status_test : public sandbox_test {
protected:
    void SetUp() override
    {
        sandbox_test::SetUp();
        testutil::install_fake_script();
        testutil::write_file(testutil::at("/usr/local/bin/check_configd_child"),
                             "#!/bin/sh\ntouch " + testutil::at("/tmp/FT_Configd_Child_Check") + "\n", 0755);
        board().radio_count = 2;
        ft_enabled_vaps() = 0;
        server_ = std::make_unique<fake_configd>();
        for (int r = 0; r < 3; ++r)
            for (int v = 0; v < 10; ++v)
                server_->set(key(r, v), "0");
        ft_state().config_handle = dbcom_init(nullptr, nullptr, DBCOM_UNIX_STREAM);
        ASSERT_NE(ft_state().config_handle, nullptr);
        init_tables();
    }

    void TearDown() override
    {
        free_kh_list();
        free_known_ap_tables();
        dbcom_close(ft_state().config_handle);
        ft_state().config_handle = nullptr;
        server_.reset();
    }

    std::unique_ptr<fake_configd> server_;
};

TEST_F(ft_status_test, EmptyValueRetriesAreSharedByTheWholeRefresh)
{
    server_->set(key(0, 0), "");
    server_->set(key(0, 1), "");
    ft_enabled_vaps() = 0x3;
    refresh_ft_status();
    // vap0 spends all three retries (four reads); vap1 then falls back to "0"
    // at once (one read). An answer line without a value is one attempt.
    EXPECT_EQ(log_count(" Assigning respto zero \n"), 2);
    EXPECT_EQ(server_->requests(), 18 + 4 + 1);
    EXPECT_EQ(ft_enabled_vaps().load(), 0u);
}

// wlan1 vap2 switched off and wlan0 vap3 to status 2 in one signal: the key
// holders hear "off" and "on" (any nonzero status counts as enabled there),
// the script runs once, and the closing refresh keeps only exact 1.
TEST_F(ft_status_test, SignalReportsChangedVapsAndRunsScriptOnce)
{
    server_->set(key(0, 0), "1");
    server_->set(key(1, 2), "1");
    // One key holder, 0A:1B:2C:3D:4E:5F (family TRV, present), which a
    // refresh with an enabled VAP reads back.
    const char record[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F, 1, 0};
    testutil::write_file(testutil::at("/var/roam_key_holders"), std::string(record, sizeof record));
    refresh_ft_status();
    ASSERT_NE(read_file(testutil::at("/tmp/ap2_macaddr.txt")).find("ap2_macaddr_wifi1vap2="), std::string::npos);
    int runs_before = testutil::script_runs();

    server_->set(key(1, 2), "0");
    server_->set(key(0, 3), "2");
    ft_status_update(SIGRTMIN, (1 << 12) | (1 << 3));
    std::string ap2mac = read_file(testutil::at("/tmp/ap2_macaddr.txt"));
    EXPECT_EQ(ap2mac.find("ap2_macaddr_wifi1vap2="), std::string::npos);
    EXPECT_NE(ap2mac.find("ap2_macaddr_wifi0vap0="), std::string::npos);
    EXPECT_NE(ap2mac.find("ap2_macaddr_wifi0vap3="), std::string::npos);
    std::string key_changes = read_file(testutil::at("/tmp/ft_key_changed.txt"));
    EXPECT_NE(key_changes.find("ft_key_changed_wifi1vap2=1,0\n"), std::string::npos);
    EXPECT_NE(key_changes.find("ft_key_changed_wifi0vap3=1,1\n"), std::string::npos);
    EXPECT_EQ(testutil::script_runs(), runs_before + 1);
    EXPECT_EQ(ft_enabled_vaps().load(), 0x1u);
    EXPECT_EQ(log_count("ft_enabled_vaps = 00000001 \n"), 1);
}

// Without a configuration handle every read fails: each VAP keeps its bit,
// and the signal update stops at its first changed VAP.
TEST_F(ft_status_test, NoHandleReadsNothing)
{
    dbcom_handle* handle = std::exchange(ft_state().config_handle, nullptr);
    ft_enabled_vaps() = 0x3;
    refresh_ft_status();
    ft_status_update(SIGRTMIN, 0x3);
    ft_state().config_handle = handle;
    EXPECT_EQ(log_count("dbcom get failed for "), 20);
    EXPECT_EQ(log_count("dbcom get failed for " + key(1, 9) + " []\n"), 1);
    EXPECT_EQ(log_count("dbcom get failed ["), 1);
    EXPECT_EQ(log_count("ft_enabled_vaps = "), 0);
    EXPECT_EQ(ft_enabled_vaps().load(), 0x3u);
}

// A changed VAP that keeps answering without a value is read four times,
// one second apart, and then counts as switched off.
TEST_F(ft_status_test, SignalUpdateGivesUpOnAnEmptyAnswer)
{
    server_->set(key(0, 0), "");
    ft_status_update(SIGRTMIN, 0x1);
    EXPECT_EQ(log_count("resp = (no value), r_cnt:"), 4);
    EXPECT_EQ(log_count("resp = (no value), r_cnt:3 \n"), 1);
    EXPECT_EQ(log_count("wifi0vap0 - 11rStatus = 0 \n"), 1);
}

// Signals queued while the event-loop thread refreshes: the work runs on the
// signal thread and never overlaps a refresh on the configuration handle.
// Each signal waits for the one before to be taken up, since some runtimes
// (the thread sanitizer's among them) merge signals that are still pending.
TEST_F(ft_status_test, ConcurrencyQueuedSignalsDuringRefresh)
{
    server_->set(key(0, 0), "1");
    setup_signals();
    constexpr int signals = 4;
    const std::string received = "Received " + std::to_string(SIGRTMIN) + " signal | 1[1] \n";
    std::atomic<bool> done{false};
    std::thread loop([&done] {
        while (!done)
            refresh_ft_status();
    });
    for (int i = 0; i < signals; ++i) {
        sigval v{};
        v.sival_int = 1;
        ASSERT_EQ(sigqueue(getpid(), SIGRTMIN, v), 0);
        for (int wait = 0; wait < 600 && log_count(received) <= i; ++wait)
            usleep(50000);
    }
    for (int wait = 0; wait < 600 && log_count("ft_enabled_vaps = ") < signals; ++wait)
        usleep(50000);
    done = true;
    loop.join();
    EXPECT_EQ(log_count(received), signals);
    EXPECT_EQ(log_count("ft_enabled_vaps = 00000001 \n"), signals);
    EXPECT_EQ(ft_enabled_vaps().load(), 1u);
}

}  // namespace
