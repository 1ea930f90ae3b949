// The board lookups when their shell commands cannot be started: each says
// so (or yields nothing) and leaves its caller a value that means "unknown".
#include <cstring>
#include <string>

#include "board/roam_lib.h"
#include "dorvfault.h"
#include "test_util.h"

namespace {

using roam_lib_fault_test = sandbox_test;

TEST_F(roam_lib_fault_test, commands_that_cannot_start)
{
    testutil::write_file(testutil::at("/tmp/run/config"),
                         "system:wlanSettings:wlanSettingTable:wlan0:rogueApDetection 1\n");
    ASSERT_EQ(get_rogue_ap_detection("wlan0"), 1);
    EXPECT_EQ(get_rogue_ap_detection("wlan1"), -1);  // no such line
    char date[32];
    ASSERT_STRNE(get_date_string(date), "");

    dorvfault::handle h = dorvfault::arm("spawn path=/bin/sh every errno=EAGAIN");
    EXPECT_EQ(get_rogue_ap_detection("wlan0"), -1);
    EXPECT_STREQ(get_date_string(date), "");
    char epoch[17] = "untouched";
    EXPECT_STREQ(get_epoch_string(epoch), "untouched");
    EXPECT_EQ(dorvfault::fired(h), 3u);
    EXPECT_EQ(testutil::log_count("] [ERROR] : Getting Neighbor AP status failed\n"), 1);
    EXPECT_EQ(testutil::log_count("] [ERROR] : Error during getting epoch time\n"), 1);
}

// A file that cannot be read leaves what is left of '""' in the room there
// is, and -1; without a buffer the value is read as a number.
TEST_F(roam_lib_fault_test, key_value_reads_without_room)
{
    const std::string missing = testutil::at("/etc/missing");
    char one[1] = {'x'};
    EXPECT_EQ(read_key_value(missing.c_str(), "K", '=', one, sizeof one), -1);
    EXPECT_EQ(one[0], '\0');
    EXPECT_EQ(read_key_value(missing.c_str(), "K", '=', nullptr, 0), -1);
    EXPECT_EQ(testutil::log_count("[roam_lib] Failed to open " + missing + " file (No such file or directory | 2) \n"),
              2);
    testutil::write_file(testutil::at("/etc/numbers"), "K= 42\n");
    EXPECT_EQ(read_key_value(testutil::at("/etc/numbers").c_str(), "K", '=', nullptr, 0), 42);
}

}  // namespace
