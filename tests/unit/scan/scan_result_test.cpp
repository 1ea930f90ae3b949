// Scan triggers and the reading of the ACS report, end to end against the
// fake driver: requests made, rows written, hand-overs and failures.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

#include "fake_driver.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"

using namespace scantest;
using testutil::log_count;

namespace {

constexpr const char* handover_line = "\t #### SCAN RESULTS ### \n";

class scan_result_test : public scan_test {
  protected:
    void SetUp() override
    {
        scan_test::SetUp();
        ASSERT_EQ(create_scan_db_2g(), 0);
        fake.report = {channel(1, 2), channel(6, 0), channel(11, 1, 250)};
    }
};

TEST_F(scan_result_test, full_scan_writes_every_channel)
{
    EXPECT_EQ(report(), 0);
    // Every statistic lands in its own column; a load above 100 is stored as 100.
    EXPECT_EQ(query(db2g(), "SELECT * FROM CHANNEL_DETAILS ORDER BY CHANNEL"),
              (rows{{"1", "2", "-89", "-89", "-100", "20", "-31", "3", "11"},
                    {"6", "0", "-84", "-84", "-100", "20", "-36", "3", "16"},
                    {"11", "1", "-79", "-79", "-100", "100", "-41", "3", "21"}}));
    EXPECT_EQ(query(db2g(), "SELECT MAC, CHANNEL, RSSI FROM SCANNED_AP_DETAILS ORDER BY MAC"),
              (rows{{"02:00:01:00:00:10", "1", "-60"},
                    {"02:00:01:00:01:10", "1", "-61"},
                    {"02:00:0b:00:00:10", "11", "-60"}}));
    // One timestamp pair for the whole call, taken from date.
    rows stamps = query(db2g(), "SELECT DISTINCT TIMESTAMP, EPOCHTIMESTAMP FROM SCANNED_AP_DETAILS");
    ASSERT_EQ(stamps.size(), 1u);
    EXPECT_EQ(stamps[0][0].size(), 24u) << stamps[0][0];  // "Mon Nov 23 08:01:00 2026"
    EXPECT_LE(std::labs(std::atol(stamps[0][1].c_str()) - static_cast<long>(time(nullptr))), 5) << stamps[0][1];
    // A hand-over per channel that has neighbours.
    EXPECT_EQ(log_count(handover_line), 2);
    EXPECT_EQ(log_count("mutex unlocked [process_scan_result] \n"), 1);
}

TEST_F(scan_result_test, batch_scan_touches_only_its_channel)
{
    ASSERT_EQ(report(), 0);
    query(db2g(), "UPDATE CHANNEL_DETAILS SET NBSS=99; UPDATE SCANNED_AP_DETAILS SET RSSI=1;");
    fake.report = {channel(1, 2), channel(6, 1), channel(11, 1)};
    fake.debug_calls.clear();

    ASSERT_EQ(process_scan_result(0, "wifi0", 6), 0);
    EXPECT_EQ(query(db2g(), "SELECT CHANNEL, NBSS FROM CHANNEL_DETAILS ORDER BY CHANNEL"),
              (rows{{"1", "99"}, {"6", "1"}, {"11", "99"}}));
    EXPECT_EQ(query(db2g(), "SELECT MAC, RSSI FROM SCANNED_AP_DETAILS WHERE CHANNEL=6"),
              (rows{{"02:00:06:00:00:10", "-60"}}));
    EXPECT_EQ(query(db2g(), "SELECT COUNT(*) FROM SCANNED_AP_DETAILS WHERE RSSI=1"), (rows{{"3"}}));
    EXPECT_EQ(fake.debug_calls.size(), 7u);  // all three entries, twice
    EXPECT_EQ(log_count(handover_line), 2 + 1);
}

struct buffer_case : named_case {
    size_t neighbours;
    bool answer7;  // the driver answers the first neighbour request with 7
    std::vector<uint32_t> lengths;
};

const buffer_case buffer_cases[] = {
    {"exactly_32", 32, false, {1664}},
    {"33_needs_a_second_request", 33, false, {1664, 1716}},
    {"255", 255, false, {1664, 255 * 52}},
    {"result_7", 5, true, {1664, 260}},
};

class neighbour_buffer_test : public scan_result_test, public ::testing::WithParamInterface<buffer_case> {};

TEST_P(neighbour_buffer_test, grows_when_the_driver_needs_it)
{
    const buffer_case& c = GetParam();
    fake.report = {channel(36, c.neighbours)};
    // Requests: the first read, the statistics, then the neighbours.
    if (c.answer7)
        fake.answer7_debug_call = 2;
    ASSERT_EQ(report(), 0);
    std::vector<uint32_t> lengths;  // of the requests with a neighbour buffer
    for (uint32_t length : fake.debug_calls)
        if (length)
            lengths.push_back(length);
    EXPECT_EQ(lengths, c.lengths);
    EXPECT_EQ(log_count("channel:36, neighbour count:"), c.lengths.size() > 1 ? 1 : 0);
    char count[32];
    snprintf(count, sizeof count, "%zu", c.neighbours);
    EXPECT_EQ(query(db2g(), "SELECT COUNT(*) FROM SCANNED_AP_DETAILS"), (rows{{count}}));
}

INSTANTIATE_TEST_SUITE_P(scan, neighbour_buffer_test, ::testing::ValuesIn(buffer_cases), case_name);

}  // namespace
