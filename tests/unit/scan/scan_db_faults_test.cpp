// The scan databases failing or spoiled: a file that cannot be opened or
// given its schema, another program's schema the statements do not fit, a
// reader that keeps the database locked, a disk that fills up, the file
// taken away, emptied or replaced by a directory or a link. Each failure is
// logged and skipped without failing the scan; what cannot be read is put
// aside and created again, and the next report stores what the failed one
// could not.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "dorvfault.h"
#include "fake_driver.h"

using namespace scantest;
using testutil::log_count;

namespace {

using db_fault_test = scan_test;

// Another program's tables under the daemon's names: the statements that do
// not fit fail one by one, and the report goes on.
struct schema_case : named_case {
    const char* sql;
    const char* channel_line;  // once per channel
    const char* bss_line;      // once per BSS
};

constexpr const char* one_column = "CREATE TABLE CHANNEL_DETAILS(CHANNEL);CREATE TABLE SCANNED_AP_DETAILS(MAC);";

// clang-format off
const schema_case schema_cases[] = {
    {"no_key_column", "CREATE TABLE CHANNEL_DETAILS(X);CREATE TABLE SCANNED_AP_DETAILS(Y);",
     "[1301]Cannot run sql statement: no such column: CHANNEL\n", "Cannot run sql statement: no such column: MAC\n"},
    {"insert_does_not_fit", one_column,
     "[1319]Failed to execute statement: table CHANNEL_DETAILS has 1 columns but 9 values were supplied\n",
     "[1456]Failed to execute statement: table SCANNED_AP_DETAILS has 1 columns but 8 values were supplied\n"},
    {"update_does_not_fit",
     "CREATE TABLE CHANNEL_DETAILS(CHANNEL);CREATE TABLE SCANNED_AP_DETAILS(MAC);"
     "INSERT INTO CHANNEL_DETAILS VALUES(1),(6);"
     "INSERT INTO SCANNED_AP_DETAILS VALUES('02:00:01:00:00:10'),('02:00:06:00:00:10');",
     "[1333]Failed to execute statement: no such column: NBSS\n",
     "[1469]Failed to execute statement: no such column: SSID\n"},
    {"writes_refused",
     "CREATE TABLE CHANNEL_DETAILS(CHANNEL INT PRIMARY KEY,NBSS INT,RSSI INT,MINRSSI INT,NOISE_FLOOR INT,"
     "CH_LOAD INT,MAXRSSI INT,SPECTRAL_LOAD INT,RANK INT);"
     "CREATE TABLE SCANNED_AP_DETAILS(MAC TEXT PRIMARY KEY,SSID TEXT,CHANNEL INTEGER,PHY_MODE INTEGER,"
     "RSSI INTEGER,AP_TYPE INTEGER,TIMESTAMP TEXT,EPOCHTIMESTAMP TEXT);"
     "CREATE TRIGGER c BEFORE INSERT ON CHANNEL_DETAILS BEGIN SELECT RAISE(ABORT, 'refused'); END;"
     "CREATE TRIGGER b BEFORE INSERT ON SCANNED_AP_DETAILS BEGIN SELECT RAISE(ABORT, 'refused'); END;",
     "[1338] - Error in executing statement:refused\n",
     "[process_scan_result] - Error in executing statement:refused\n"},
};
// clang-format on

class foreign_schema_test : public db_fault_test, public ::testing::WithParamInterface<schema_case> {};

TEST_P(foreign_schema_test, statements_fail_row_by_row)
{
    const schema_case& c = GetParam();
    query(db2g(), c.sql);
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(log_count(c.channel_line), 2) << testutil::log_text();
    EXPECT_EQ(log_count(c.bss_line), 2);
    EXPECT_EQ(log_count("\t #### SCAN RESULTS ### \n"), 2);  // the key holders still hear of them
    EXPECT_EQ(log_count("created again"), 0);                // the tables are there: nothing to repair
}

INSTANTIATE_TEST_SUITE_P(scan, foreign_schema_test, ::testing::ValuesIn(schema_cases), case_name);

// A report meets a database fault or a spoiled file, and the next report
// ({11}) stores its rows: the spoiled file is replaced once, at the first
// report that meets it; a fault is repaired after it has passed.
struct passing_case : named_case {
    void (*stage)();
    const char* rule;                                // armed for the first report; null: none
    std::vector<std::pair<std::string, int>> lines;  // logged, that often
    int repairs_first, repairs;                      // databases created again by the first report, by both
    rows channels;                                   // after both
    bool moved_aside;                                // <db>.corrupt holds what was there
};

const auto garbage = [] { testutil::write_file(db2g(), "not a database at all\n"); };
const auto created = [] { ASSERT_EQ(create_scan_db_2g(), 0); };
const auto no_lines = std::vector<std::pair<std::string, int>>{};
const std::pair<std::string, int> no_sql_failed{"Cannot run sql statement", 0};  // repaired before the rows
const std::string repaired = "[dorvand] Scan database /tmp/scan_db_2g ";
const rows all_three{{"1"}, {"6"}, {"11"}};

// clang-format off
const passing_case passing_cases[] = {
    {"none", created, nullptr, no_lines, 0, 0, all_three, false},
    {"missing", [] {}, nullptr, {{repaired + "was missing: created again\n", 1}, no_sql_failed}, 1, 1, all_three, false},
    {"schema_damaged",
     [] {
         created();
         query(db2g(), "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql='x' WHERE name='CHANNEL_DETAILS';");
     },
     nullptr, {{repaired + "was not a database (moved to /tmp/scan_db_2g.corrupt): created again\n", 1}, no_sql_failed}, 1, 1,
     all_three, true},
    {"emptied", [] { testutil::write_file(db2g(), ""); }, nullptr, {{repaired + "lacked its tables: created again\n", 1}, no_sql_failed},
     1, 1, all_three, false},
    {"table_dropped",
     [] {
         created();
         query(db2g(), "DROP TABLE CHANNEL_DETAILS");
     },
     nullptr, {{repaired + "lacked its tables: created again\n", 1}, no_sql_failed}, 1, 1, all_three, false},
    {"cannot_open", created, "open path=*/tmp/scan_db_2g every errno=EACCES",
     {{"[1278]Error in opening Db \n", 1}, {"[1434]Error in opening Db \n", 2}}, 0, 0, {{"11"}}, false},
    {"disk_full_for_the_schema", [] {}, "write path=*/tmp/scan_db_2g* every errno=ENOSPC",
     {{"Cannot create tables: database or disk is full\n", 1},
      {"[1301]Cannot run sql statement: no such table: CHANNEL_DETAILS\n", 2}},
     0, 1, {{"11"}}, false},
    {"cannot_move_aside", garbage, "rename path=*/tmp/scan_db_2g.corrupt errno=EXDEV",
     {{repaired + "cannot be replaced [18|Invalid cross-device link]: tried again at the next scan\n", 1}}, 0, 1,
     {{"11"}}, true},
    // Its first two opens look at the spoiled file; the third would create the new one.
    {"cannot_create_after_moving_aside", garbage, "open path=*/tmp/scan_db_2g nth=3 errno=EACCES",
     {{"[1278]Error in opening Db \n", 1}}, 0, 1, {{"11"}}, true},
};
// clang-format on

class passing_fault_test : public db_fault_test, public ::testing::WithParamInterface<passing_case> {};

TEST_P(passing_fault_test, next_report_stores_everything)
{
    const passing_case& c = GetParam();
    c.stage();
    if (c.rule)
        dorvfault::arm(c.rule);
    EXPECT_EQ(report(), 0);
    dorvfault::reset();
    EXPECT_EQ(log_count(": created again\n"), c.repairs_first);
    fake.report = {channel(11, 1)};
    EXPECT_EQ(report(), 0);
    for (const auto& [line, count] : c.lines)
        EXPECT_EQ(log_count(located(line)), count) << line << testutil::log_text();
    EXPECT_EQ(log_count(": created again\n"), c.repairs) << testutil::log_text();
    EXPECT_EQ(channel_rows(), c.channels);
    EXPECT_EQ(bss_rows().size(), c.channels.size());  // one neighbour each
    EXPECT_EQ(testutil::exists(testutil::at("/tmp/scan_db_2g.corrupt")), c.moved_aside);
}

INSTANTIATE_TEST_SUITE_P(scan, passing_fault_test, ::testing::ValuesIn(passing_cases), case_name);

// A reader holding the database's write lock longer than the busy wait: the
// writes give up with SQLite's own reason, and are made at the next report.
TEST_F(db_fault_test, reader_holding_the_lock_past_the_busy_wait)
{
    ASSERT_EQ(create_scan_db_2g(), 0);
    fake.report = {channel(1, 0)};
    sqlite3* reader = nullptr;
    ASSERT_EQ(sqlite3_open(db2g().c_str(), &reader), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(reader, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    EXPECT_EQ(report(), 0);
    EXPECT_EQ(log_count("[1338] - Error in executing statement:database is locked\n"), 1);
    ASSERT_EQ(sqlite3_exec(reader, "ROLLBACK", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(reader);
    EXPECT_EQ(channel_rows(), rows{});

    EXPECT_EQ(report(), 0);
    EXPECT_EQ(channel_rows(), rows{{"1"}});
}

// Creation at a radio's start: what cannot be opened or given its schema
// is reported with SQLite's reason and its result code.
struct create_case : named_case {
    void (*stage)();
    const char* rule;
    int rc;
    const char* line;
};

// clang-format off
const create_case create_cases[] = {
    {"not_a_database", garbage, nullptr, SQLITE_NOTADB, "Cannot create tables: file is not a database\n"},
    {"cannot_open", [] {}, "open path=*/tmp/scan_db_2g every errno=EACCES", SQLITE_CANTOPEN,
     "Cannot open database: unable to open database file\n"},
    {"planted_link",
     [] {
         testutil::write_file(testutil::at("/tmp/victim"), "");
         ASSERT_EQ(symlink(testutil::at("/tmp/victim").c_str(), db2g().c_str()), 0);
     },
     nullptr, SQLITE_CANTOPEN,
     "Cannot open database: unable to open database file\n"},
};
// clang-format on

class create_fault_test : public db_fault_test, public ::testing::WithParamInterface<create_case> {};

TEST_P(create_fault_test, is_reported_with_the_result)
{
    const create_case& c = GetParam();
    c.stage();
    if (c.rule)
        dorvfault::arm(c.rule);
    EXPECT_EQ(create_scan_db_2g(), c.rc);
    EXPECT_EQ(log_count(c.line), 1) << testutil::log_text();
}

INSTANTIATE_TEST_SUITE_P(scan, create_fault_test, ::testing::ValuesIn(create_cases), case_name);

// Kept as it is and reported once (the end-to-end recovery tests follow it
// over several scans); replaced once emptied, and a new incident is reported
// again.
TEST_F(db_fault_test, directory_with_content_is_reported_again_after_a_repair)
{
    const std::string kept = db2g() + "/kept";
    for (int incident = 1; incident <= 2; ++incident) {
        unlink(db2g().c_str());
        ASSERT_EQ(mkdir(db2g().c_str(), 0755), 0);
        testutil::write_file(kept, "somebody's\n");
        for (int scan = 0; scan < 2; ++scan)  // said once however many scans the incident lasts
            ASSERT_EQ(report(), 0);
        EXPECT_EQ(log_count(located(repaired + "cannot be replaced [39|Directory not empty]: tried again at the next "
                                               "scan\n")),
                  incident);
        EXPECT_EQ(testutil::read_file(kept), "somebody's\n");
        ASSERT_EQ(unlink(kept.c_str()), 0);
        ASSERT_EQ(report(), 0);
        EXPECT_EQ(log_count(located(repaired + "was a directory: created again\n")), incident);
        EXPECT_EQ(channel_rows(), (rows{{"1"}, {"6"}}));
    }
}

TEST_F(db_fault_test, planted_link_is_refused_not_replaced)
{
    testutil::write_file(testutil::at("/tmp/victim"), "not the daemon's\n");
    ASSERT_EQ(symlink(testutil::at("/tmp/victim").c_str(), db2g().c_str()), 0);
    ASSERT_EQ(report(), 0);
    EXPECT_EQ(testutil::read_file(testutil::at("/tmp/victim")), "not the daemon's\n");
    EXPECT_EQ(log_count(located(repaired)), 0);
    EXPECT_GE(log_count(located("[dorvand] Refused /tmp/scan_db_2g: a symbolic link\n")), 1);
    struct stat st {};
    ASSERT_EQ(lstat(db2g().c_str(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

// The rows of a report skip the file check that its write cycle made; a
// link planted after that check still fails their connection, which is then
// refused and reported as by every open.
bool planted = false;

int plant_before_rows(int fd, unsigned long request, void* arg)
{
    auto* block = static_cast<drv_debug_block*>(static_cast<drv_iwreq*>(arg)->u.data.pointer);
    if (request == DRV_REQ_DEBUG && block->report->nbr.pointer && !planted) {
        unlink(db2g().c_str());
        planted = symlink(testutil::at("/tmp/victim").c_str(), db2g().c_str()) == 0;
    }
    return fake_ioctl(fd, request, arg);
}

TEST_F(db_fault_test, link_planted_after_the_check_is_refused_for_each_row)
{
    created();
    testutil::write_file(testutil::at("/tmp/victim"), "not the daemon's\n");
    fake.report = {channel(11, 2)};
    planted = false;
    driver_ioctl = plant_before_rows;
    ASSERT_EQ(report(), 0);
    ASSERT_TRUE(planted) << "the link was never planted";
    EXPECT_EQ(testutil::read_file(testutil::at("/tmp/victim")), "not the daemon's\n");
    EXPECT_EQ(log_count("[dorvand] Refused " + db2g() + ": a symbolic link\n"), 2);
    EXPECT_EQ(log_count("[1434]Error in opening Db \n"), 2);
}

}  // namespace
