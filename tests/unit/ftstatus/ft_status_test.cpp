// The 802.11r status refresh and the SIGRTMIN update, against a fake
// configuration daemon and a checking program of the test's own.
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "board/board.h"
#include "configstore/dbcom.h"
#include "daemon/daemon.h"
#include "fake_configd.h"
#include "ftstatus/ft_status.h"
#include "neighbours/neighbours.h"
#include "test_util.h"

using testutil::at;
using testutil::log_count;
using testutil::read_file;

// The waits between checks and retries, counted on a clock of the test's
// own rather than spent: seconds asked for since the test began.
static std::atomic<unsigned> slept{0};
extern "C" unsigned int sleep(unsigned int seconds)
{
    slept += seconds;
    return 0;
}

namespace {

std::string key(int radio, int vap)
{
    return "system:vapSettings:vapSettingTable:wlan" + std::to_string(radio) + ":vap" + std::to_string(vap) +
           ":11rStatus";
}

struct value_of {
    int radio, vap;
    const char* value;  // "": the key alone, without a value
};

using log_counts = std::vector<std::pair<const char*, int>>;

class ft_status_test : public sandbox_test {
  protected:
    void SetUp() override
    {
        sandbox_test::SetUp();
        testutil::install_fake_script();
        checking_program(0);
        board().radio_count = 2;
        ft_enabled_vaps() = 0;
        slept = 0;
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

    // A checking program that lets configd be read from its (failed + 1)-th
    // run on; never with a negative count.
    static void checking_program(int failed)
    {
        std::string flag =
            failed < 0 ? ":"
                       : "[ $n -gt " + std::to_string(failed) + " ] && touch " + at("/tmp/FT_Configd_Child_Check");
        testutil::write_file(at("/usr/local/bin/check_configd_child"),
                             "#!/bin/sh\nn=$(($(cat " + at("/tmp/checks") + " 2>/dev/null) + 1))\necho $n > " +
                                 at("/tmp/checks") + "\n" + flag + "\nexit 0\n",
                             0755);
    }

    // One key holder, 0A:1B:2C:3D:4E:5F (family TRV, present), in the file a
    // refresh with an enabled VAP reads back.
    static void key_holder_file()
    {
        const char record[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F, 1, 0};
        testutil::write_file(at("/var/roam_key_holders"), std::string(record, sizeof record));
    }

    void expect_logs(const log_counts& logs)
    {
        for (const auto& [text, n] : logs)
            EXPECT_EQ(log_count(text), n) << text;
    }

    std::unique_ptr<fake_configd> server_;
};

struct refresh_case {
    const char* name;
    std::vector<value_of> values;  // all others "0"
    int radios;
    uint32_t before;
    int failed_checks;  // before configd may be read; -1: never
    bool key_holders;   // the key-holder file exists
    uint32_t after;
    int requests;
    unsigned slept;
    log_counts logs;
};

void PrintTo(const refresh_case& c, std::ostream* os)
{
    *os << c.name;
}

class refresh_test : public ft_status_test, public ::testing::WithParamInterface<refresh_case> {};

constexpr const char* checking = "Checking for configd child to avoid multiple dbcom get at same time\n";

TEST_P(refresh_test, mask_reads_and_waits)
{
    const refresh_case& c = GetParam();
    for (const auto& v : c.values)
        server_->set(key(v.radio, v.vap), v.value);
    board().radio_count = static_cast<uint8_t>(c.radios);
    ft_enabled_vaps() = c.before;
    checking_program(c.failed_checks);
    if (c.key_holders)
        key_holder_file();
    refresh_ft_status();
    EXPECT_EQ(ft_enabled_vaps().load(), c.after);
    EXPECT_EQ(server_->requests(), c.requests);
    EXPECT_EQ(slept.load(), c.slept);
    expect_logs(c.logs);
    // The key holders read back are written out for the enabled VAPs.
    EXPECT_EQ(read_file(at("/tmp/ap2_macaddr.txt")).find("ap2_macaddr_wifi0vap0=") != std::string::npos,
              c.key_holders && (c.after & 1));
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    refresh, refresh_test,
    ::testing::Values(
        // Only exactly 1 sets a bit; every VAP of three radios is read once.
        refresh_case{"three_radios", {{0, 0, "1"}, {0, 1, "2"}, {1, 9, "1"}, {2, 9, "1"}}, 3, 0x2, 0, false,
                     0x20080001, 30, 0, {{"radios = 3 \n", 1}, {"wlan0vap1 = 2\n", 1}, {"wlan2vap9 = 1\n", 1},
                     {"ft_enabled_vaps  = 20080001 \n", 1}, {"MKH exist\n", 0}}},
        refresh_case{"dual_radio", {{2, 0, "1"}, {1, 0, "1"}}, 2, 0, 0, true, 0x400, 20, 0,
                     {{"radios = 2 \n", 1}, {"MKH exist\n", 1}, {"ft_enabled_vaps  = 00000400 \n", 1}}},
        refresh_case{"key_holders_read_back", {{0, 0, "1"}}, 2, 0, 0, true, 0x1, 20, 0, {{"MKH exist\n", 1}}},
        // With no VAP enabled the key-holder file is not consulted.
        refresh_case{"key_holders_not_needed", {}, 2, 0x1, 0, true, 0, 20, 0, {{"MKH exist\n", 0}}},
        // vap0 spends all three retries (four reads); vap1 then falls back to
        // "0" at once (one read).
        refresh_case{"empty_value_retries_shared", {{0, 0, ""}, {0, 1, ""}}, 2, 0x3, 0, false, 0, 18 + 4 + 1, 3,
                     {{" Assigning respto zero \n", 2}, {"wlan0vap0 = 0\n", 1}}},
        // The failed checks are counted for the whole refresh, not per VAP.
        refresh_case{"configd_ready_on_third_check", {{1, 3, "1"}}, 2, 0, 2, false, 0x2000, 20, 10,
                     {{checking, 22}, {" Checking for configd child retry count:1 \n", 1}}},
        refresh_case{"configd_never_ready", {{0, 0, "1"}}, 2, 0x5, -1, false, 0x5, 0, 72 * 5,
                     {{checking, 72}, {" Checking for configd child retry count:71 \n", 1}, {"wlan", 0}}}),
    [](const auto& p) { return std::string(p.param.name); });
// clang-format on

// wlan1 vap2 switched off, wlan0 vap3 to status 2 and wlan1 vap0 (the bit
// after wlan0's last) unchanged in one signal: the key holders hear "off" and
// "on" (any nonzero status counts as enabled there), the script runs once,
// and the closing refresh keeps only exact 1. A signal naming only VAPs of a
// radio the board lacks reads nothing, but still runs the script and the
// refresh.
TEST_F(ft_status_test, signal_reports_changed_vaps_and_runs_script_once)
{
    server_->set(key(0, 0), "1");
    server_->set(key(1, 2), "1");
    key_holder_file();
    refresh_ft_status();
    ASSERT_NE(read_file(at("/tmp/ap2_macaddr.txt")).find("ap2_macaddr_wifi1vap2="), std::string::npos);
    int runs_before = testutil::script_runs();

    server_->set(key(1, 2), "0");
    server_->set(key(0, 3), "2");
    ft_status_update(SIGRTMIN, (1 << 12) | (1 << 10) | (1 << 3));
    std::string ap2mac = read_file(at("/tmp/ap2_macaddr.txt"));
    EXPECT_EQ(ap2mac.find("ap2_macaddr_wifi1vap2="), std::string::npos);
    EXPECT_NE(ap2mac.find("ap2_macaddr_wifi0vap0="), std::string::npos);
    EXPECT_NE(ap2mac.find("ap2_macaddr_wifi0vap3="), std::string::npos);
    std::string key_changes = read_file(at("/tmp/ft_key_changed.txt"));
    EXPECT_NE(key_changes.find("ft_key_changed_wifi1vap2=1,0\n"), std::string::npos);
    EXPECT_NE(key_changes.find("ft_key_changed_wifi0vap3=1,1\n"), std::string::npos);
    EXPECT_EQ(testutil::script_runs(), runs_before + 1);
    EXPECT_EQ(ft_enabled_vaps().load(), 0x1u);
    expect_logs({{"wifi0vap3 - 11rStatus = 2 \n", 1},
                 {"wifi1vap0 - 11rStatus = 0 \n", 1},
                 {"val = 5120 \n", 1},
                 {"val = 4096 \n", 1},
                 {"val = 0 \n", 1},
                 {"ft_enabled_vaps = 00000001 \n", 1}});
    EXPECT_EQ(server_->requests(), 20 + 3 + 20);

    ft_status_update(SIGRTMIN, 1 << 25);
    EXPECT_EQ(testutil::script_runs(), runs_before + 2);
    EXPECT_EQ(server_->requests(), 43 + 20);
    expect_logs({{"wifi2vap5", 0}, {"ft_enabled_vaps = 00000001 \n", 2}});
}

// Without a configuration handle every read fails: each VAP keeps its bit,
// and the signal update stops at its first changed VAP.
TEST_F(ft_status_test, no_handle_reads_nothing)
{
    dbcom_handle* handle = std::exchange(ft_state().config_handle, nullptr);
    ft_enabled_vaps() = 0x3;
    refresh_ft_status();
    ft_status_update(SIGRTMIN, 0x3);
    ft_state().config_handle = handle;
    expect_logs({{"dbcom get failed for ", 20},
                 {"dbcom get failed [", 1},
                 {"ft_enabled_vaps = ", 0},
                 {"dbcom get failed for system:vapSettings:vapSettingTable:wlan1:vap9:11rStatus []\n", 1}});
    EXPECT_EQ(ft_enabled_vaps().load(), 0x3u);
}

// A changed VAP that keeps answering without a value is read four times,
// one second apart, and then counts as switched off; the retries are its own.
TEST_F(ft_status_test, signal_update_gives_up_on_an_empty_answer)
{
    server_->set(key(0, 0), "");
    server_->set(key(0, 1), "");
    ft_status_update(SIGRTMIN, 0x3);
    expect_logs({{"resp = (no value), r_cnt:", 8},
                 {"resp = (no value), r_cnt:3 \n", 2},
                 {"wifi0vap0 - 11rStatus = 0 \n", 1},
                 {"wifi0vap1 - 11rStatus = 0 \n", 1}});
    EXPECT_EQ(slept.load(), 3u + 3u + 3u);
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
