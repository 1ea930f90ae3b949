// The driver failing under the scan module: no request socket, requests
// refused, interfaces gone, a command that cannot run, and the ACS report
// failing part way through a scan, after which the next report catches up.
#include <gtest/gtest.h>

#include <string>

#include "dorvfault.h"
#include "fake_driver.h"

using namespace scantest;
using testutil::log_count;

namespace {

constexpr const char* no_socket = "socket fd=inet every errno=EMFILE";
constexpr const char* no_spawn = "spawn every errno=EAGAIN";

struct request_case : named_case {
    const char* rule;  // armed for the call; null: none
    void (*setup)();
    int (*call)();
    int rc;
    const char* line;
};

const auto nothing = [] {};
const auto io_fails = [] { fake.fail_io = true; };
const auto vaps_down = [] { fake.ifaces["wifi0vap0"] = DOWN; };

const request_case request_cases[] = {
    {"socket_acs_trigger", no_socket, nothing, [] { return trigger_acs_scan("wifi0vap0"); }, -1,
     "socket open failed for scanning\n"},
    {"socket_batch_trigger", no_socket, nothing, [] { return trigger_batch_scan(0, 6); }, -1,
     "Cannot open Socket trigger_batch_scan\n"},
    {"socket_report", no_socket, nothing, [] { return process_scan_result(0, "wifi0vap0", 0); }, -1,
     "socket open failed [24|Too many open files]\n"},
    {"socket_radio", no_socket, nothing, [] { return is_radio_up(0); }, -1,
     "Failed to open socket [24|Too many open files] \n"},
    {"socket_vap", no_socket, nothing, [] { return find_active_vap("wifi0", 0); }, -1,
     "Failed to open socket [24|Too many open files] \n"},
    {"socket_cac", no_socket, nothing, [] { return get_cac_state("wifi1vap0"); }, -1,
     "get_cac_state:1546 Socket creation failed "},
    {"socket_voice", no_socket, nothing, [] { return monitor_traffic("wifi1"); }, -1,
     "[monitor_traffic] Error occurs while creating socket\n"},
    {"socket_channel_info", no_socket, nothing, [] { return get_channel_info("wifi0vap0"); }, -1,
     "Failed to open socket [24|Too many open files] \n"},
    {"cac_refused", nullptr, io_fails, [] { return get_cac_state("wifi1vap0"); }, -1,
     "get_cac_state:1557 Ioctl failed "},
    {"voice_refused", nullptr, io_fails, [] { return monitor_traffic("wifi1"); }, -1,
     "monitor_traffic: ioctl failed\n"},
    {"channel_info_refused", nullptr, io_fails, [] { return get_channel_info("wifi0vap0"); }, -1,
     "Failed to access the channel info IOCTL\n"},
    {"batch_trigger_refused", nullptr, io_fails, [] { return trigger_batch_scan(0, 6); }, -1,
     "trigger_batch_scan: ioctl failed\n"},
    {"radio_gone", nullptr, [] { fake.ifaces.erase("wifi0"); }, [] { return is_radio_up(0); }, -1,
     "Failed to check radio status [19|No such device] \n"},
    {"vap_gone", nullptr,
     [] {
         vaps_down();
         fake.ifaces.erase("wifi0vap3");
     },
     [] { return find_active_vap("wifi0", 0); }, -1, "Failed to check vap status [19|No such device] \n"},
    {"fallback_gone", nullptr, vaps_down, [] { return find_active_vap("wifi0", 0); }, -1,
     "Failed to check vap status [19|No such device] \n"},
    {"fallback_cannot_be_raised", no_spawn,
     [] {
         vaps_down();
         fake.ifaces["ath0"] = DOWN;
     },
     [] { return find_active_vap("wifi0", 0); }, VAP_IDX_FALLBACK,
     "Failed to run command [11|Resource temporarily unavailable]\n"},
    {"chanlist_reset_cannot_run", no_spawn, nothing,
     [] {
         set_chanlist("wifi0vap0");
         return 0;
     },
     0, "Failed to run command [11|Resource temporarily unavailable]\n"},
    // Not a failure: a radio whose VAPs are all down is read through athN.
    {"report_through_fallback", nullptr,
     [] {
         vaps_down();
         fake.ifaces["ath0"] = UP;
         fake.report = {channel(1, 0)};
     },
     [] { return process_scan_result(0, "wifi0", 0); }, 0, "ifname: ath0\n"},
};

class request_fault_test : public scan_test, public ::testing::WithParamInterface<request_case> {};

TEST_P(request_fault_test, is_logged_and_reported)
{
    const request_case& c = GetParam();
    c.setup();
    if (c.rule)
        dorvfault::arm(c.rule);
    EXPECT_EQ(c.call(), c.rc);
    dorvfault::reset();
    EXPECT_EQ(log_count(c.line), 1) << testutil::log_text();
}

INSTANTIATE_TEST_SUITE_P(scan, request_fault_test, ::testing::ValuesIn(request_cases), case_name);

// The ACS report fails at one of its requests (counted from 0: the first
// read, then each channel's statistics, then each channel's neighbours).
struct report_case : named_case {
    std::vector<acs_channel> report;
    int failing_request;
    const char* line;
    rows channels;  // stored before the failure
    rows bss;
};

const report_case report_cases[] = {
    {"statistics", {channel(1, 1), channel(6, 1)}, 2, "Dorvand DBG req failed", {{"1"}}, {}},
    {"neighbours",
     {channel(1, 1), channel(6, 1)},
     4,
     "Failed to return a value",
     {{"1"}, {"6"}},
     {{"02:00:01:00:00:10"}}},
    {"larger_neighbour_buffer",
     {channel(1, 1), channel(6, 33)},
     5,
     "Dorvand DBG req failed",
     {{"1"}, {"6"}},
     {{"02:00:01:00:00:10"}}},
};

class report_fault_test : public scan_test, public ::testing::WithParamInterface<report_case> {};

TEST_P(report_fault_test, ends_the_scan_and_the_next_catches_up)
{
    const report_case& c = GetParam();
    ASSERT_EQ(create_scan_db_2g(), 0);
    fake.report = c.report;
    fake.fail_debug_call = c.failing_request;
    EXPECT_EQ(report(), -1);
    EXPECT_EQ(log_count(c.line), 1);
    EXPECT_EQ(channel_rows(), c.channels);
    EXPECT_EQ(bss_rows(), c.bss);
    EXPECT_EQ(log_count("mutex unlocked [process_scan_result] \n"), 1);

    fake.fail_debug_call = -1;
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(channel_rows(), (rows{{"1"}, {"6"}}));
    EXPECT_EQ(bss_rows().size(), 1 + c.report[1].neighbours.size());
}

INSTANTIATE_TEST_SUITE_P(scan, report_fault_test, ::testing::ValuesIn(report_cases), case_name);

}  // namespace
