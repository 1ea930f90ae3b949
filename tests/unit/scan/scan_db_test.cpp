// Creation of the scan databases and the channel and BSS upserts.
#include "base/paths.h"
#include "fake_driver.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace scantest;
using testutil::log_count;

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

bss_row bss(std::vector<uint8_t> mac, const char* ssid, uint8_t chan, int32_t rssi, const char* ts, const char* epoch)
{
    bss_row r{};
    memcpy(r.bssid, mac.data(), 6);
    r.ssid = ssid;
    r.channel = chan;
    r.phymode = 15;
    r.rssi = rssi;
    r.ap_type = 2;
    r.timestamp = ts;
    r.epoch = epoch;
    return r;
}

TEST_F(scan_test, create_makes_both_tables_per_band)
{
    EXPECT_EQ(create_scan_db_2g(), 0);
    EXPECT_EQ(create_scan_db_5g(), 0);
    EXPECT_EQ(create_scan_db_5gh(), 0);
    for (const char* file : paths::scan_dbs) {
        SCOPED_TRACE(file);
        EXPECT_EQ(query(file, "SELECT name FROM sqlite_master WHERE type='table' ORDER BY name"),
                  (rows{{"CHANNEL_DETAILS"}, {"SCANNED_AP_DETAILS"}}));
    }
    EXPECT_EQ(log_count("Creating scan table\n"), 3);
}

TEST_F(scan_test, create_again_keeps_rows)
{
    ASSERT_EQ(create_scan_db_2g(), 0);
    write_channel(0, stats(6));
    upsert_bss(0, bss({1, 2, 3, 4, 5, 6}, "net", 6, -50, "t", "1"));
    ASSERT_EQ(create_scan_db_2g(), 0);
    EXPECT_EQ(query(db2g, "SELECT COUNT(*) FROM CHANNEL_DETAILS"), (rows{{"1"}}));
    EXPECT_EQ(query(db2g, "SELECT COUNT(*) FROM SCANNED_AP_DETAILS"), (rows{{"1"}}));
}

// A directory where the database belongs: creation and every write cycle
// fail with their own log lines.
TEST_F(scan_test, database_that_cannot_be_opened)
{
    ASSERT_EQ(mkdir("/tmp/scan_db_5gh", 0755), 0);
    EXPECT_NE(create_scan_db_5gh(), 0);
    EXPECT_EQ(log_count("Cannot create tables: ") + log_count("Cannot open database: "), 1) << testutil::log_text();
    EXPECT_FALSE(open_scan_db(2, DB_OPEN_LINE_CHANNEL));
    upsert_bss(2, bss({1, 2, 3, 4, 5, 6}, "x", 1, -1, "t", "1"));
    EXPECT_EQ(log_count("[1278]Error in opening Db \n"), 1);
    EXPECT_EQ(log_count("[1434]Error in opening Db \n"), 1);
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

TEST_F(scan_test, bss_row_insert_then_update_in_place)
{
    ASSERT_EQ(create_scan_db_2g(), 0);
    upsert_bss(0, bss({0xAA, 0xBB, 0xCC, 0x00, 0x11, 0x22}, "first", 1, -60, "Mon Jan  1 00:00:00 2024", "100"));
    EXPECT_EQ(query(db2g, "SELECT * FROM SCANNED_AP_DETAILS"),
              (rows{{"aa:bb:cc:00:11:22", "first", "1", "15", "-60", "2", "Mon Jan  1 00:00:00 2024", "100"}}));

    upsert_bss(0, bss({0xAA, 0xBB, 0xCC, 0x00, 0x11, 0x22}, "second", 6, -45, "Tue Jan  2 00:00:00 2024", "200"));
    EXPECT_EQ(query(db2g, "SELECT * FROM SCANNED_AP_DETAILS"),
              (rows{{"aa:bb:cc:00:11:22", "second", "6", "15", "-45", "2", "Tue Jan  2 00:00:00 2024", "200"}}));
}

TEST_F(scan_test, missing_tables_are_logged_and_skipped)
{
    // An empty database file: every statement fails to prepare.
    write_channel(0, stats(1));
    upsert_bss(0, bss({1, 2, 3, 4, 5, 6}, "x", 1, -1, "t", "1"));
    EXPECT_EQ(log_count("[1301]Cannot run sql statement: no such table: CHANNEL_DETAILS\n"), 1);
    EXPECT_EQ(log_count("Cannot run sql statement: no such table: SCANNED_AP_DETAILS\n"), 1);
}

TEST_F(scan_test, failed_writes_name_their_line)
{
    ASSERT_EQ(create_scan_db_2g(), 0);
    query(db2g, "CREATE TRIGGER no_ch BEFORE INSERT ON CHANNEL_DETAILS BEGIN SELECT RAISE(ABORT, 'blocked'); END;"
                "CREATE TRIGGER no_ap BEFORE INSERT ON SCANNED_AP_DETAILS BEGIN SELECT RAISE(ABORT, 'blocked'); END;");
    write_channel(0, stats(1));
    upsert_bss(0, bss({1, 2, 3, 4, 5, 6}, "x", 1, -1, "t", "1"));
    EXPECT_EQ(log_count("[1338] - Error in executing statement:blocked\n"), 1);
    EXPECT_EQ(log_count("[process_scan_result] - Error in executing statement:blocked\n"), 1);
    EXPECT_EQ(query(db2g, "SELECT COUNT(*) FROM CHANNEL_DETAILS"), (rows{{"0"}}));
}

} // namespace
