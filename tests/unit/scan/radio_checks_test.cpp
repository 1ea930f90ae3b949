// Radio, VAP, CAC, voice-traffic and channel-list checks against the fake
// driver.
#include "fake_driver.h"
#include "scan/scan.h"

#include <gtest/gtest.h>

using namespace scantest;
using testutil::log_count;

namespace
{

struct vap_case {
    const char* what;
    std::map<std::string, int16_t> ifaces;
    int result;
    int vaps_queried; // wifi1 first, then wifi1vap0 onwards
    bool ath_queried;
    const char* ifconfig_runs; // contents of /tmp/ifconfig_runs
    const char* log_line;      // a line that must be logged
};

void PrintTo(const vap_case& c, std::ostream* os)
{
    *os << c.what;
}

// wifi1 up and all ten VAPs down.
std::map<std::string, int16_t> all_down(bool ath_up)
{
    std::map<std::string, int16_t> m{{"wifi1", UP}, {"ath1", ath_up ? UP : DOWN}};
    for (int v = 0; v < 10; ++v)
        m["wifi1vap" + std::to_string(v)] = DOWN;
    return m;
}

const vap_case vap_cases[] = {
    {"radio_down", {{"wifi1", DOWN}, {"wifi1vap0", UP}}, -1, 0, false, "", "No Active radio found wifi1 \n"},
    {"radio_missing", {}, -1, 0, false, "", "Failed to check radio status [19|No such device] \n"},
    {"first_up_wins",
     {{"wifi1", UP}, {"wifi1vap0", DOWN}, {"wifi1vap1", UP}, {"wifi1vap2", UP}},
     1,
     2,
     false,
     "",
     "Active vap found [wifi1vap1] "},
    {"missing_vap_fails_search",
     {{"wifi1", UP}, {"wifi1vap0", DOWN}, {"ath1", UP}},
     -1,
     2,
     false,
     "",
     "Failed to check vap status [19|No such device] \n"},
    {"fallback_down_is_brought_up", all_down(false), 16, 10, true, "ath1 up\n", "ath interface is not up [ath1] \n"},
    {"fallback_up", all_down(true), 16, 10, true, "", "Active vap found [ath1]\n "},
};

class find_active_vap_test : public scan_test, public ::testing::WithParamInterface<vap_case>
{
};

TEST_P(find_active_vap_test, searches_in_order)
{
    const vap_case& c = GetParam();
    testutil::write_file("/usr/local/bin/ifconfig", "#!/bin/sh\necho \"$@\" >> /tmp/ifconfig_runs\n", 0755);
    fake.ifaces = c.ifaces;
    EXPECT_EQ(find_active_vap("wifi1", 1), c.result);
    std::vector<std::string> queried = {"wifi1"};
    for (int v = 0; v < c.vaps_queried; ++v)
        queried.push_back("wifi1vap" + std::to_string(v));
    if (c.ath_queried)
        queried.push_back("ath1");
    EXPECT_EQ(fake.flag_queries, queried);
    EXPECT_EQ(testutil::read_file("/tmp/ifconfig_runs"), c.ifconfig_runs);
    EXPECT_EQ(log_count(c.log_line), 1) << testutil::log_text();
}

INSTANTIATE_TEST_SUITE_P(scan, find_active_vap_test, ::testing::ValuesIn(vap_cases),
                         [](const auto& p) { return std::string(p.param.what); });

TEST_F(scan_test, channel_info_without_a_list_change)
{
    struct row {
        const char* name;
        std::vector<uint8_t> channels;
        bool fail;
        int result;
    };
    const row rows[] = {
        {"wifi0vap0", {}, false, 0},    // a count of 0
        {"ath0", {1, 6, 11}, false, 0}, // no radio of that name
        {"wifi0vap0", {1}, true, -1},   // the request fails
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        fake.chan_info = r.channels;
        fake.fail_io = r.fail;
        EXPECT_EQ(get_channel_info(r.name), r.result);
        for (const auto& list : scanning().scan_chan_list)
            EXPECT_TRUE(list.empty());
    }
    EXPECT_EQ(log_count(" channel is "), 0);
    EXPECT_EQ(log_count("Failed to access the channel info IOCTL\n"), 1);
}

TEST_F(scan_test, channel_info_count_is_an_unsigned_byte)
{
    for (int i = 1; i <= 255; ++i)
        fake.chan_info.push_back(static_cast<uint8_t>(i));
    EXPECT_EQ(get_channel_info("wifi0vap0"), 0);
    ASSERT_EQ(scanning().scan_chan_list[0].size(), 255u);
    EXPECT_EQ(scanning().scan_chan_list[0].back(), 255);
}

} // namespace
