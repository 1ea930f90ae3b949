// The channel-list check against the fake driver.
#include "fake_driver.h"
#include "scan/scan.h"

#include <gtest/gtest.h>

using namespace scantest;
using testutil::log_count;

namespace
{

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
