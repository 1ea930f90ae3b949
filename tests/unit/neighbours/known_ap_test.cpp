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

    // The reload before a scan: each radio its own lines, the table printed
    // under its name.
    reload_known_ap_table(1);
    EXPECT_EQ(log_count("\t\thash table for wlan1 \n"), 1);
    EXPECT_EQ(table_rows(1), std::vector<std::string>{row("0a:1b:2c:3d:4e:6f", "Yes", "TRM")});
    reload_known_ap_table(0);
    EXPECT_EQ(log_count("Duplicate entry at"), 10);
}

// Entries the file may hold in other spellings: MACs in upper case or split
// by '.', '-' or ':', runs of commas, blank entries, lines of 256 characters
// (skipped) and 255 (taken), a last line without a newline; and a repeated
// MAC further down its slot.
TEST_F(known_ap_test, TextVariantsAndDuplicatesInASlot)
{
    const std::string text = "system:apList:knownApTable:wlan0:1:0A.1B.2C.3D.4E.01 1,,,1\n"
                             "system:apList:knownApTable:wlan0:2:AABBCCDDEE02 ,0\n"
                             "system:apList:knownApTable:wlan0:3:0A-1B-2C-3D-4E-0G 1,1\n"
                             "system:apList:knownApTable:wlan0:3:0a1b2c3d4e0g 1,1\n"
                             "system:apList:knownApTable:wlan0:4:   \n"
                             "system:apList:knownApTable:wlan0:5:0a1b2c3d4e03 " +
                             std::string(208, '1') +
                             "\n"
                             "system:apList:knownApTable:wlan0:9:0a1b2c3d4e0f 1," +
                             std::string(205, '1') +
                             "\n"
                             "system:apList:knownApTable:wlan0:6:0a1b2c3d4e01 0,0\n"
                             "system:apList:knownApTable:wlan0:7:0A1B2C3D4E04 0,1,1\n"
                             "system:apList:knownApTable:wlan0:8:0A1B2C3D4E05";
    load_known_aps_text(neighbours().known_ap_tables[0], "wlan0", text.data(), text.size());
    EXPECT_EQ(table_rows(0),
              (std::vector<std::string>{row("0a:1b:2c:3d:4e:01", "Yes", "TRM"), row("aa:bb:cc:dd:ee:02", "No", "TRV"),
                                        row("0a:1b:2c:3d:4e:0f", "Yes", "TRM"), row("0a:1b:2c:3d:4e:04", "No", "TRM"),
                                        row("0a:1b:2c:3d:4e:05", "Yes", "TRV")}));
    EXPECT_EQ(log_count("[dorvand] Known-AP entry ignored: bad MAC text \"0A-1B-2C-3D-4E-0G\"\n"), 1);
    EXPECT_EQ(log_count("[dorvand] Known-AP entry ignored: bad MAC text \"0a1b2c3d4e0g\"\n"), 1);
    EXPECT_EQ(log_count("[dorvand] Known-AP entry ignored: bad MAC text \"\"\n"), 1);
    EXPECT_EQ(
        log_count("[dorvand] Skipped a line of " + testutil::at("/tmp/run/config") + " longer than 255 characters\n"),
        1);
    EXPECT_EQ(log_count("Duplicate entry at beginning"), 1);

    const uint8_t again[6] = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x04};
    add_to_ht(neighbours().known_ap_tables[0], again, 1, 1, 0, 0);
    EXPECT_EQ(log_count("Duplicate entry at traversal A-1B-2C-3D-4E-4 \n"), 1);
    EXPECT_EQ(table_rows(0).size(), 5u);
}

}  // namespace
