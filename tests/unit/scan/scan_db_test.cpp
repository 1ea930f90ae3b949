// The channel rows of the scan databases.
#include "base/paths.h"
#include "fake_driver.h"

#include <gtest/gtest.h>

using namespace scantest;

namespace
{

constexpr const char* db2g = "/tmp/scan_db_2g";

channel_stats stats(uint8_t chan, uint32_t load = 10)
{
    return channel_stats{chan, 3, -80, -95, load, -40, 7, 2};
}

void write_channel(int radio, channel_stats s)
{
    sqlite_ptr db = open_scan_db(radio, DB_OPEN_LINE_CHANNEL);
    ASSERT_TRUE(db);
    upsert_channel(db.get(), s);
}

// RSSI and MINRSSI both take the minimum; a second write of a channel
// updates its row, CH_LOAD capped.
TEST_F(scan_test, channel_row_columns_and_update_in_place)
{
    ASSERT_EQ(create_scan_db_2g(), 0);
    write_channel(0, channel_stats{11, 200, -91, -101, 42, -33, -5, 7});
    EXPECT_EQ(query(db2g, "SELECT * FROM CHANNEL_DETAILS"),
              (rows{{"11", "200", "-91", "-91", "-101", "42", "-33", "-5", "7"}}));
    write_channel(0, channel_stats{11, 9, -70, -90, 250, -30, 1, 4});
    EXPECT_EQ(query(db2g, "SELECT * FROM CHANNEL_DETAILS"),
              (rows{{"11", "9", "-70", "-70", "-90", "100", "-30", "1", "4"}}));
}

TEST_F(scan_test, channel_load_is_capped_at_100)
{
    ASSERT_EQ(create_scan_db_2g(), 0);
    uint8_t chan = 1;
    for (uint32_t load : {0u, 100u, 101u, 0xFFFFFFFFu})
        write_channel(0, stats(chan++, load));
    EXPECT_EQ(query(db2g, "SELECT CH_LOAD FROM CHANNEL_DETAILS ORDER BY CHANNEL"),
              (rows{{"0"}, {"100"}, {"100"}, {"100"}}));
}

} // namespace
