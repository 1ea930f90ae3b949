// Known-AP tables: the configuration reload.
#include <string>

#include "nb_fixture.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::log_count;

std::string row(const std::string& mac, const char* present, const char* family)
{
    return mac + " present = " + present + " | family = " + family + " ";
}

class known_ap_test : public neighbours_test {};

TEST_F(known_ap_test, LoadTakesTheRadiosLinesAndOnlyAdds)
{
    load_known_aps(neighbours().known_ap_tables[0], "wlan0");
    EXPECT_EQ(log_count("file pointer not opened [2|No such file or directory]\n"), 1);
    EXPECT_TRUE(table_rows(0).empty());

    testutil::write_file(testutil::at("/tmp/run/config"),
                         "system:apList:knownApTable:wlan0:1:0A-1B-2C-3D-4E-5F 1,0\n"
                         "system:apList:knownApTable:wlan1:1:0A1B2C3D4E6F 1,1\n"
                         "system:apList:knownApTable:wlan0:2:0a1b2c3d4e00\n"
                         "system:apList:knownApTable:wlan0:3:0A1B2C3D4E10 0,1\n"
                         "system:apList:knownApTable:wlan0:4:ZZ1B2C3D4E20 1,1\n"
                         "system:apList:knownApTable:wlan0:5:0A1B2C3D4E5F0A1B2C3D 1,1\n"
                         // An attribute is its token's first character minus '0', a blank or
                         // the line's newline included: both give a non-zero family.
                         "system:apList:knownApTable:wlan0:6:0A1B2C3D4E30 1, 0\n"
                         "system:apList:knownApTable:wlan0:7:0A1B2C3D4E40 0,\n");
    load_known_aps(neighbours().known_ap_tables[0], "wlan0");
    std::vector<std::string> want = {row("0a:1b:2c:3d:4e:00", "Yes", "TRV"), row("0a:1b:2c:3d:4e:10", "No", "TRM"),
                                     row("0a:1b:2c:3d:4e:30", "Yes", "TRM"), row("0a:1b:2c:3d:4e:40", "No", "TRM"),
                                     row("0a:1b:2c:3d:4e:5f", "Yes", "TRV")};
    EXPECT_EQ(table_rows(0), want);
    EXPECT_EQ(log_count("[dorvand] Known-AP entry ignored: bad MAC text \"ZZ1B2C3D4E20\"\n"), 1);
    EXPECT_EQ(log_count("[dorvand] Known-AP entry ignored: MAC text longer than 17 characters\n"), 1);

    load_known_aps(neighbours().known_ap_tables[0], "wlan0");
    EXPECT_EQ(table_rows(0), want);
    EXPECT_EQ(log_count("Duplicate entry at"), 5);
}

}  // namespace
