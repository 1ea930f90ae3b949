// A band's database taken away or spoiled between two reports: the next
// report's write cycle puts an empty schema in its place and stores its rows,
// keeps what cannot be read for examination, and reports once what it cannot
// replace.
#include "fake_driver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <string>

using namespace scantest;
using testutil::log_count;

namespace
{

const char* db2g()
{
    static const std::string path = testutil::at("/tmp/scan_db_2g");
    return path.c_str();
}
const std::string repaired = "[dorvand] Scan database /tmp/scan_db_2g ";
const std::string unreplaceable = "[dorvand] Scan database /tmp/scan_db_2g cannot be replaced [39|Directory not empty]"
                                  ": tried again at the next scan\n";

fake_channel channel(uint8_t chan, uint8_t neighbours)
{
    fake_channel c;
    c.ieee_chan = chan;
    c.chan_load = 10;
    for (uint8_t i = 0; i < neighbours; ++i)
        c.neighbours.push_back(neighbour({0x02, 0x00, chan, 0x00, i, 0x10}, "ssid", -60));
    return c;
}

class scan_db_test : public scan_test
{
  protected:
    void SetUp() override
    {
        scan_test::SetUp();
        for (auto& told : scanning().db_fault_told)
            told = false;
        radio_with_vap0(0);
        ASSERT_EQ(create_scan_db_2g(), 0);
        fake.report = {channel(1, 2), channel(6, 1)};
        ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
        fake.report = {channel(11, 1)};
    }

    // The rows the second report should have added, with those of the first
    // unless the database was replaced.
    static rows channels() { return query(db2g(), "SELECT CHANNEL FROM CHANNEL_DETAILS ORDER BY CHANNEL"); }
    static rows bss_count() { return query(db2g(), "SELECT COUNT(*) FROM SCANNED_AP_DETAILS"); }
};

struct fault_case {
    const char* name;
    void (*stage)();
    const char* line;        // the repair line after the path; null: none
    rows channels_after;     // of the second report
    const char* moved_aside; // what <db>.corrupt holds afterwards ("" anything); null: absent
};

void PrintTo(const fault_case& c, std::ostream* os)
{
    *os << c.name;
}

const fault_case fault_cases[] = {
    {"none", [] {}, nullptr, {{"1"}, {"6"}, {"11"}}, nullptr},
    {"deleted", [] { unlink(db2g()); }, "was missing: created again\n", {{"11"}}, nullptr},
    {"garbage", [] { testutil::write_file(db2g(), "not a database at all\n"); },
     "was not a database (moved to /tmp/scan_db_2g.corrupt): created again\n", {{"11"}}, "not a database at all\n"},
    {"schema_damaged",
     [] { query(db2g(), "PRAGMA writable_schema=ON; UPDATE sqlite_master SET sql='x' WHERE name='CHANNEL_DETAILS';"); },
     "was not a database (moved to /tmp/scan_db_2g.corrupt): created again\n", {{"11"}}, ""},
    {"emptied", [] { testutil::write_file(db2g(), ""); }, "lacked its tables: created again\n", {{"11"}}, nullptr},
    {"table_dropped", [] { query(db2g(), "DROP TABLE CHANNEL_DETAILS"); }, "lacked its tables: created again\n",
     {{"11"}}, nullptr},
    {"empty_directory", [] { unlink(db2g()), mkdir(db2g(), 0755); }, "was a directory: created again\n", {{"11"}},
     nullptr},
};

class scan_db_fault_test : public scan_db_test, public ::testing::WithParamInterface<fault_case>
{
};

TEST_P(scan_db_fault_test, next_report_is_stored)
{
    const fault_case& c = GetParam();
    c.stage();
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(channels(), c.channels_after);
    EXPECT_EQ(query(db2g(), "SELECT MAC FROM SCANNED_AP_DETAILS WHERE CHANNEL=11"), (rows{{"02:00:0b:00:00:10"}}));
    EXPECT_EQ(log_count(located(repaired)), c.line ? 1 : 0);
    if (c.line) {
        EXPECT_EQ(log_count(located(repaired + c.line)), 1) << testutil::log_text();
    }
    EXPECT_EQ(log_count("Cannot run sql statement"), 0);
    EXPECT_EQ(testutil::exists(testutil::at("/tmp/scan_db_2g.corrupt")), c.moved_aside != nullptr);
    if (c.moved_aside && *c.moved_aside) {
        EXPECT_EQ(testutil::read_file(testutil::at("/tmp/scan_db_2g.corrupt")), c.moved_aside);
    }

    // Repaired once: the next report finds it fit.
    fake.report = {channel(36, 0)};
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(located(repaired)), c.line ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(scan, scan_db_fault_test, ::testing::ValuesIn(fault_cases),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(scan_db_test, directory_with_content_is_reported_once_and_retried)
{
    unlink(db2g());
    ASSERT_EQ(mkdir(db2g(), 0755), 0);
    testutil::write_file(std::string(db2g()) + "/kept", "somebody's\n");
    for (int report = 0; report < 2; ++report)
        ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(located(unreplaceable)), 1);
    EXPECT_EQ(testutil::read_file(std::string(db2g()) + "/kept"), "somebody's\n");

    ASSERT_EQ(unlink((std::string(db2g()) + "/kept").c_str()), 0);
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(located(repaired + "was a directory: created again\n")), 1);
    EXPECT_EQ(channels(), (rows{{"11"}}));

    // A new incident is reported again.
    unlink(db2g());
    ASSERT_EQ(mkdir(db2g(), 0755), 0);
    testutil::write_file(std::string(db2g()) + "/kept", "again\n");
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(located(unreplaceable)), 2);
}

TEST_F(scan_db_test, planted_link_is_refused_not_replaced)
{
    testutil::write_file(testutil::at("/tmp/victim"), "not the daemon's\n");
    unlink(db2g());
    ASSERT_EQ(symlink(testutil::at("/tmp/victim").c_str(), db2g()), 0);
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(testutil::read_file(testutil::at("/tmp/victim")), "not the daemon's\n");
    EXPECT_EQ(log_count(located(repaired)), 0);
    EXPECT_GE(log_count(located("[dorvand] Refused /tmp/scan_db_2g: a symbolic link\n")), 1);
    struct stat st {};
    ASSERT_EQ(lstat(db2g(), &st), 0);
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
        unlink(db2g());
        planted = symlink(testutil::at("/tmp/victim").c_str(), db2g()) == 0;
    }
    return fake_ioctl(fd, request, arg);
}

TEST_F(scan_db_test, link_planted_after_the_check_is_refused_for_each_row)
{
    testutil::write_file(testutil::at("/tmp/victim"), "not the daemon's\n");
    fake.report = {channel(11, 2)};
    planted = false;
    driver_ioctl = plant_before_rows;
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    ASSERT_TRUE(planted) << "the link was never planted";
    EXPECT_EQ(testutil::read_file(testutil::at("/tmp/victim")), "not the daemon's\n");
    EXPECT_EQ(log_count("[dorvand] Refused " + std::string(db2g()) + ": a symbolic link\n"), 2);
    EXPECT_EQ(log_count("[1434]Error in opening Db \n"), 2);
}

} // namespace
