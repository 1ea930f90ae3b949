// The per-band timer chain: which timer each handler leaves pending, after
// how long, and what a scan did meanwhile.
#include <gtest/gtest.h>

#include <cmath>

#include "base/paths.h"
#include "board/board.h"
#include "fake_driver.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"

using namespace scantest;
using testutil::log_count;

namespace {

struct band_handlers {
    eloop_timeout_handler rogue, start, full, batch;
};

const band_handlers band_of[3] = {
    {rogue_ap_check_2g, start_2g_scan_timer, trigger_2g_full_scan, trigger_2g_batch_scan},
    {rogue_ap_check_5gl, start_5gl_scan_timer, trigger_5gl_full_scan, trigger_5gl_batch_scan},
    {rogue_ap_check_5gh, start_5gh_scan_timer, trigger_5gh_full_scan, trigger_5gh_batch_scan},
};

// Exactly one timer of the band is pending: this handler, contexts 0 and
// ctx2, due after `secs` seconds (rounded).
void expect_next(int radio, eloop_timeout_handler handler, intptr_t ctx2, long secs)
{
    const band_handlers& b = band_of[radio];
    std::vector<eloop_timer> timers;
    uint32_t now;
    {
        std::lock_guard<std::mutex> hold(eloop.lock);
        now = eloop_now_ticks();
        for (const auto& t : eloop.timers)
            if (t.handler == b.rogue || t.handler == b.start || t.handler == b.full || t.handler == b.batch)
                timers.push_back(t);
    }
    ASSERT_EQ(timers.size(), 1u);
    EXPECT_EQ(timers[0].handler, handler);
    EXPECT_EQ(timers[0].ctx1, 0);
    EXPECT_EQ(timers[0].ctx2, ctx2);
    EXPECT_NEAR(std::lround(static_cast<int32_t>(timers[0].expiry - now) / static_cast<double>(eloop.ticks_per_sec)),
                secs, 1);
}

// Rogue-AP detection per radio; each band reads its own radio's setting.
void set_rogue(int wlan0, int wlan1, int wlan2)
{
    const int on[3] = {wlan0, wlan1, wlan2};
    std::string text;
    for (int w = 0; w < 3; ++w)
        text += "system:wlanSettings:wlanSettingTable:wlan" + std::to_string(w) + ":rogueApDetection " +
                std::to_string(on[w]) + "\n";
    testutil::write_file(testutil::at("/tmp/run/config"), text);
}

class scheduler_test : public scan_test {
  protected:
    void SetUp() override
    {
        scan_test::SetUp();
        testutil::write_file(testutil::at("/usr/sbin/wifitool"),
                             "#!/bin/sh\necho \"$@\" >> " + testutil::at("/tmp/wifitool_runs") + "\n", 0755);
        testutil::write_file(testutil::at("/usr/local/bin/ifconfig"), "#!/bin/sh\n", 0755);
        set_rogue(1, 1, 1);
        fake.report = {acs_channel{}};
        fake.report[0].ieee_chan = 36;
        fake.chan_info = {36, 40};
    }
};

TEST_F(scheduler_test, rogue_check_repeats_while_disabled)
{
    ft_enabled_vaps() = 0x7;  // 802.11r plays no part in the first start
    for (int r = 0; r < 3; ++r) {
        set_rogue(r != 0, r != 1, r != 2);  // only this band's radio has it off
        for (int check = 0; check < 2; ++check) {
            band_of[r].rogue(0, 0);
            expect_next(r, band_of[r].rogue, 0, 5);
        }
    }
    EXPECT_EQ(log_count("Rogue AP enabled"), 0);
}

TEST_F(scheduler_test, radio_up_creates_database_and_draws_delay)
{
    start_5gh_scan_timer();
    EXPECT_TRUE(testutil::exists(testutil::at("/tmp/scan_db_5gh")));
    EXPECT_GE(scanning().rand_scan_timer, 60);
    EXPECT_LE(scanning().rand_scan_timer, 300);
    EXPECT_EQ(scanning().rand_scan_timer % 10, 0);
    expect_next(2, trigger_5gh_full_scan, 2, scanning().rand_scan_timer);
    EXPECT_EQ(
        log_count("[dorvand] start_5gh_scan_timer : " + std::to_string(scanning().rand_scan_timer) + " seconds \n"), 1);
    EXPECT_EQ(
        log_count("**** 1736 : rand_scan_timer: " + std::to_string(scanning().rand_scan_timer) + " seconds ****\n"), 1);
}

// What a scan handler meets, set up before it runs.
using condition = void (*)();
const condition none = [] {};
const condition no_rogue = [] { set_rogue(1, 0, 1); };  // for wifi1
const condition no_vap = [] {                           // wifi1's VAPs down, the fallback up
    for (int m = 0; m < 10; ++m)
        fake.ifaces["wifi1vap" + std::to_string(m)] = DOWN;
    fake.ifaces["ath1"] = UP;
};
const condition voice = [] { fake.voice.voice_bit = 1; };
const condition cac = [] { fake.cac_value = CAC_RUNNING; };

struct full_case : named_case {
    int radio;
    condition setup;
    eloop_timeout_handler next;  // null: the band's own full scan
    long secs;
    const char* log_line;
    size_t sleeps;
    bool asks_cac;
};

const full_case full_cases[] = {
    {"not_started", 1, no_rogue, nullptr, 10,
     "The Rogue AP status: 0, 11R status: 0, active_vap_idx:0. Could not start scan on 5GHz radio\n", 0, false},
    {"no_vap", 1, no_vap, nullptr, 10, "[dorvand] [2017] : No active vap found for scan on wifi1\n", 0, false},
    {"voice", 1, voice, nullptr, 10,
     "[dorvand] trigger_5gl_full_scan : Skipping the scan for wifi1 due to voice traffic\n", 0, false},
    {"trigger_fails", 1, [] { fake.param_set_errno = EBUSY; }, nullptr, 10,
     "[dorvand] trigger_5gl_full_scan :Failed to trigger the scan | 16 | Device or resource busy\n", 0, true},
    // The marker goes even so, and the retry triggers a new ACS scan.
    {"results_fail", 1, [] { fake.fail_debug_call = 0; }, nullptr, 10,
     "[dorvand] trigger_5gl_full_scan :Failed to process the scan result for wifi1\n", 1, true},
    {"success", 1, none, trigger_5gl_batch_scan, 1800,
     "[dorvand] trigger_5gl_full_scan :parsed scan result succesfully\n", 1, true},
    {"ft_alone_suffices", 1,
     [] {
         set_rogue(0, 0, 0);
         ft_enabled_vaps() = 1u << 10;
     },
     trigger_5gl_batch_scan, 1800, "[dorvand] trigger_5gl_full_scan :scan success \n", 1, true},
    {"no_cac_check_on_2g", 0, cac, trigger_2g_batch_scan, 1800, "[dorvand] trigger_2g_full_scan : scan success \n", 1,
     false},
    {"high_band_no_vap", 2,
     [] {
         fake.ifaces["wifi2vap0"] = DOWN;
         fake.ifaces["ath2"] = DOWN;
     },
     nullptr, 10, "[dorvand][1953] No active vap found for scan on wifi2\n", 0, false},
};

class full_scan_test : public scheduler_test, public ::testing::WithParamInterface<full_case> {};

TEST_P(full_scan_test, leaves_one_timer)
{
    const full_case& c = GetParam();
    c.setup();
    band_of[c.radio].full(0, c.radio);
    expect_next(c.radio, c.next ? c.next : band_of[c.radio].full, c.radio, c.secs);
    EXPECT_EQ(log_count(c.log_line), 1);
    EXPECT_EQ(log_count("bad radio index"), 0);  // the context names the band's radio
    ASSERT_EQ(sleeps.size(), c.sleeps);
    if (c.sleeps) {
        EXPECT_EQ(sleeps[0].seconds, 10u);
        EXPECT_TRUE(sleeps[0].marker[c.radio]);  // written while the results are read
    }
    EXPECT_FALSE(testutil::exists(paths::scan_db_markers[c.radio]));
    EXPECT_EQ(fake.param_gets, c.asks_cac ? std::vector<std::string>{"wifi1vap0 310"} : std::vector<std::string>{});
}

// A context that names no radio is reported, and the band's own radio scans.
TEST_F(scheduler_test, bad_radio_index_falls_back_to_the_band)
{
    trigger_5gl_full_scan(0, 7);
    EXPECT_EQ(log_count("[dorvand] trigger_5gl_full_scan: bad radio index 7\n"), 1);
    expect_next(1, trigger_5gl_batch_scan, 1, 1800);
}

INSTANTIATE_TEST_SUITE_P(scan, full_scan_test, ::testing::ValuesIn(full_cases), case_name);

TEST_F(scheduler_test, full_scan_success_learns_channels)
{
    ASSERT_EQ(create_scan_db_5g(), 0);
    trigger_5gl_full_scan(0, 1);
    const growable_array<int32_t>& channels = scanning().scan_chan_list[1];
    EXPECT_EQ(std::vector<int32_t>(channels.begin(), channels.end()), (std::vector<int32_t>{36, 40}));
    EXPECT_EQ(testutil::read_file(testutil::at("/tmp/wifitool_runs")), "wifi1vap0 setchanlist 0\n");
    EXPECT_EQ(fake.param_sets, std::vector<std::string>{"wifi1vap0 318=4"});  // the ACS scan started
    EXPECT_EQ(query(testutil::at("/tmp/scan_db_5g"), "SELECT CHANNEL FROM CHANNEL_DETAILS"), (rows{{"36"}}));
}

// Batch scans that read nothing: skipped or held, or with no channel learned.
struct batch_case : named_case {
    int radio;
    condition setup;
    long secs;
    const char* log_line;
};

const batch_case batch_cases[] = {
    {"skip_2g_voice", 0, voice, 10, "[dorvand] trigger_2g_batch_scan: Skipping the scan for wifi0 [1:0]\n"},
    {"skip_2g_no_rogue", 0, [] { set_rogue(0, 1, 1); }, 10,
     "[dorvand] trigger_2g_batch_scan: Skipping the scan for wifi0 [0:0]\n"},
    {"skip_5g_no_rogue", 1, no_rogue, 10, "[dorvand] trigger_5gl_batch_scan: Skipping the scan for wifi1 [0:0] \n"},
    {"skip_5gh_no_rogue", 2, [] { set_rogue(1, 1, 0); }, 10,
     "[dorvand] trigger_5gh_batch_scan: Skipping the scan for wifi2 [0:0] \n"},
    {"skip_5g_fallback", 1, no_vap, 10, "[dorvand] trigger_5gl_batch_scan: Skipping the scan for wifi1 [1:0] \n"},
    {"cac_5g", 1, cac, 60,
     "[dorvand] trigger_5gl_batch_scan: CAC timer running on the interface wifi1vap0, holding the scan trigger\n"},
    {"no_channels", 2, [] { scanning().scan_chan_list[2].clear(); }, 1800,
     "[dorvand] trigger_5gh_batch_scan: The total channel count is 0\n"},
};

class batch_scan_test : public scheduler_test, public ::testing::WithParamInterface<batch_case> {};

TEST_P(batch_scan_test, reads_nothing_and_leaves_one_timer)
{
    const batch_case& c = GetParam();
    scanning().scan_chan_list[c.radio].clear();
    ASSERT_TRUE(scanning().scan_chan_list[c.radio].push_back(1));
    c.setup();
    band_of[c.radio].batch(0, c.radio);
    expect_next(c.radio, band_of[c.radio].batch, c.radio, c.secs);
    EXPECT_EQ(log_count(c.log_line), 1);
    EXPECT_TRUE(sleeps.empty());
    EXPECT_TRUE(fake.debug_calls.empty());
    EXPECT_FALSE(testutil::exists(paths::scan_db_markers[c.radio]));
}

INSTANTIATE_TEST_SUITE_P(scan, batch_scan_test, ::testing::ValuesIn(batch_cases), case_name);

}  // namespace
