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

// The band's files where this run has them; asked for only once the tests
// run, when the test root is known.
const char* db2g()
{
    static const std::string path = testutil::at("/tmp/scan_db_2g");
    return path.c_str();
}

const char* corrupt2g()
{
    static const std::string path = testutil::at("/tmp/scan_db_2g.corrupt");
    return path.c_str();
}

std::string repaired()
{
    return std::string("[dorvand] Scan database ") + db2g() + " ";
}

std::string unreplaceable()
{
    return repaired() + "cannot be replaced [39|Directory not empty]: tried again at the next scan\n";
}

// A repair line as written down below, with the path of the copy moved
// aside where this run has it.
std::string repair_line(const char* line)
{
    std::string text = line;
    const std::string fixed = "/tmp/scan_db_2g.corrupt";
    if (size_t at = text.find(fixed); at != std::string::npos)
        text.replace(at, fixed.size(), corrupt2g());
    return text;
}

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
    const char* moved_aside; // what <db>.corrupt holds afterwards; null: absent
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
    EXPECT_EQ(log_count(repaired()), c.line ? 1 : 0);
    if (c.line) {
        EXPECT_EQ(log_count(repaired() + repair_line(c.line)), 1) << testutil::log_text();
    }
    EXPECT_EQ(log_count("Cannot run sql statement"), 0);
    EXPECT_EQ(testutil::exists(corrupt2g()), c.moved_aside != nullptr);
    if (c.moved_aside) {
        EXPECT_EQ(testutil::read_file(corrupt2g()), c.moved_aside);
    }

    // Repaired once: the next report finds it fit.
    fake.report = {channel(36, 0)};
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(repaired()), c.line ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(scan, scan_db_fault_test, ::testing::ValuesIn(fault_cases),
                         [](const auto& p) { return std::string(p.param.name); });

TEST_F(scan_db_test, directory_with_content_is_reported_once_and_retried)
{
    const std::string kept = std::string(db2g()) + "/kept";
    unlink(db2g());
    ASSERT_EQ(mkdir(db2g(), 0755), 0);
    testutil::write_file(kept, "somebody's\n");
    for (int report = 0; report < 2; ++report)
        ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(unreplaceable()), 1);
    EXPECT_EQ(testutil::read_file(kept), "somebody's\n");

    ASSERT_EQ(unlink(kept.c_str()), 0);
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(repaired() + "was a directory: created again\n"), 1);
    EXPECT_EQ(channels(), (rows{{"11"}}));

    // A new incident is reported again.
    unlink(db2g());
    ASSERT_EQ(mkdir(db2g(), 0755), 0);
    testutil::write_file(kept, "again\n");
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(log_count(unreplaceable()), 2);
}

TEST_F(scan_db_test, planted_link_is_refused_not_replaced)
{
    const std::string victim = testutil::at("/tmp/victim");
    testutil::write_file(victim, "not the daemon's\n");
    unlink(db2g());
    ASSERT_EQ(symlink(victim.c_str(), db2g()), 0);
    ASSERT_EQ(process_scan_result(0, "wifi0vap0", 0), 0);
    EXPECT_EQ(testutil::read_file(victim), "not the daemon's\n");
    EXPECT_EQ(log_count(repaired()), 0);
    EXPECT_GE(log_count(std::string("[dorvand] Refused ") + db2g() + ": a symbolic link\n"), 1);
    struct stat st {};
    ASSERT_EQ(lstat(db2g(), &st), 0);
    EXPECT_TRUE(S_ISLNK(st.st_mode));
}

} // namespace
