// Known-AP tables: slots, duplicates, deletion, scan matching and the
// configuration reload.
#include <string>

#include "nb_fixture.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::log_count;

const mac_t known = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50};

void add(int radio, const mac_t& mac, uint8_t present = 1, uint8_t family = 0)
{
    add_to_ht(neighbours().known_ap_tables[radio], mac.data(), present, family, 0, 0);
}

std::string row(const std::string& mac, const char* present, const char* family)
{
    return mac + " present = " + present + " | family = " + family + " ";
}

class known_ap_test : public neighbours_test {};

// The known AP sits second in slot 5's chain, behind 01:02:03:04:05:51. A
// match updates the entry with the scanned record's channel and type.
TEST_F(known_ap_test, MatchAgreesOnAllButTheLowNibbleOfTheLastByte)
{
    const mac_t head = {1, 2, 3, 4, 5, 0x51};
    add(0, head);
    add(0, known);
    struct {
        mac_t bssid;
        const mac_t* found;
    } cases[] = {
        {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50}, &known}, {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x57}, &known},
        {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, &known}, {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x67}, nullptr},
        {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x40}, nullptr}, {{0x0B, 0x1B, 0x2C, 0x3D, 0x4E, 0x50}, nullptr},
        {{0x0A, 0x1B, 0x2C, 0x3D, 0x4F, 0x50}, nullptr}, {{1, 2, 3, 4, 5, 0x5A}, &head},
    };
    uint8_t channel = 1;
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << int(c.bssid[0]) << "..." << int(c.bssid[4]) << ":"
                                        << int(c.bssid[5]));
        scan_ap_record rec[2] = {};
        std::copy(c.bssid.begin(), c.bssid.end(), rec[1].bssid);
        rec[1].channel = ++channel;
        rec[1].ap_type = 6;
        auto found = find_known_ap(rec, 0, 1);
        ASSERT_EQ(found != nullptr, c.found != nullptr);
        if (found) {
            EXPECT_EQ(mac_t({found->mac[0], found->mac[1], found->mac[2], found->mac[3], found->mac[4],
                             found->mac[5]}),
                      *c.found);
            EXPECT_EQ(found->channel, channel);
            EXPECT_EQ(found->ap_type, 6);
        }
    }
    EXPECT_EQ(log_count("Found @ traversal of 5\t\t\t\t\t\t\t\tslot \n"), 3);
    EXPECT_EQ(log_count("Found @ beginning of 5 slot \n"), 1);
    // Only radio 0's table holds the AP.
    scan_ap_record rec{};
    std::copy(known.begin(), known.end(), rec.bssid);
    EXPECT_EQ(find_known_ap(&rec, 1, 0), nullptr);
}

TEST_F(known_ap_test, MissingTableIsReportedByFindAndTraverse)
{
    free_known_ap_table(neighbours().known_ap_tables[2]);
    neighbours().known_ap_tables[2] = nullptr;
    scan_ap_record rec{};
    EXPECT_EQ(find_known_ap(&rec, 2, 0), nullptr);
    EXPECT_EQ(log_count("[dorvand] ht for wlan2 is not created\t\t\t\t\n"), 1);
    traverse_hash_table(nullptr, "wlan2");
    EXPECT_EQ(log_count("hash table is empty for wlan2 \n"), 1);
}

TEST_F(known_ap_test, DuplicatesKeepTheOldAttributes)
{
    add(0, {0, 0, 0, 0, 0, 0x35}, 1, 0);
    add(0, {0, 0, 0, 0, 0, 0x3A}, 0, 1);
    add(0, {0, 0, 0, 0, 0, 0x35}, 0, 1);
    add(0, {0, 0, 0, 0, 0, 0x3A}, 1, 0);
    EXPECT_EQ(log_count("New entry , but in same hash slot [3]\t\t\t\t\n"), 1);
    EXPECT_EQ(log_count("Duplicate entry at beginning 0-0-0-0-0-35 \n"), 1);
    EXPECT_EQ(log_count("Duplicate entry at traversal 0-0-0-0-0-3A \n"), 1);
    EXPECT_EQ(table_rows(0), (std::vector<std::string>{row("00:00:00:00:00:35", "Yes", "TRV"),
                                                       row("00:00:00:00:00:3a", "No", "TRM")}));
}

TEST_F(known_ap_test, TraversalVisitsSlotsInOrderOldestFirst)
{
    add(1, {0, 0, 0, 0, 0, 0xF0});
    add(1, {0, 0, 0, 0, 0, 0x3A});
    add(1, {0, 0, 0, 0, 0, 0x05});
    add(1, {0, 0, 0, 0, 0, 0x35});
    size_t from = log_size();
    traverse_hash_table(neighbours().known_ap_tables[1], "wlan1");
    std::vector<std::string> want = {
        "mutex locked [traverse_hash_table] ",
        "###############################",
        "\t\thash table for wlan1 ",
        "\t*** slot = 0 ***",
        row("00:00:00:00:00:05", "Yes", "TRV"),
        "\t*** slot = 3 ***",
        row("00:00:00:00:00:3a", "Yes", "TRV"),
        row("00:00:00:00:00:35", "Yes", "TRV"),
        "\t*** slot = 15 ***",
        row("00:00:00:00:00:f0", "Yes", "TRV"),
        "mutex unlocked [traverse_hash_table] ",
    };
    EXPECT_EQ(log_messages(from), want);
}

TEST_F(known_ap_test, DeleteFromHeadChainEmptySlotAndAbsentMac)
{
    add(0, {0, 0, 0, 0, 0, 0x31});
    add(0, {0, 0, 0, 0, 0, 0x32});
    add(0, {0, 0, 0, 0, 0, 0x33});
    mac_t empty_slot = {0, 0, 0, 0, 0, 0x71};
    del_from_ht(neighbours().known_ap_tables[0], empty_slot.data());
    EXPECT_EQ(log_count("00:00:00:00:00:71is not found \n"), 1);

    size_t from = log_size();
    mac_t absent = {0, 0, 0, 0, 0, 0x34};
    del_from_ht(neighbours().known_ap_tables[0], absent.data());
    EXPECT_EQ(log_messages(from),
              (std::vector<std::string>{"mutex locked [del_from_ht] ", "mutex unlocked [del_from_ht] "}));

    mac_t middle = {0, 0, 0, 0, 0, 0x32};
    del_from_ht(neighbours().known_ap_tables[0], middle.data());
    EXPECT_EQ(log_count("mac found during traversal of 3 slot \n"), 1);
    mac_t head = {0, 0, 0, 0, 0, 0x31};
    del_from_ht(neighbours().known_ap_tables[0], head.data());
    EXPECT_EQ(log_count("mac found @ beginning of 3 slot \n"), 1);
    EXPECT_EQ(table_rows(0), (std::vector<std::string>{row("00:00:00:00:00:33", "Yes", "TRV")}));
}

TEST_F(known_ap_test, ParseMacFormats)
{
    struct {
        const char* text;
        int result;
    } cases[] = {
        {"0a1b2c3d4e5f", 12},       {"0A-1B-2C-3D-4E-5F", 17}, {"0a.1b:2c-3d4e5f", 15},
        {"::0a1b2c3d4e5f 1,0", 14}, {"0a1b2c3d4e5", -1},      {"0a1b2c3d4e5g", -1},
        {"0a-1b-2c-3d-4e-", -1},    {"", -1},                 {"0a 1b2c3d4e5f", -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        uint8_t out[6] = {};
        ASSERT_EQ(parse_mac(c.text, out), c.result);
        if (c.result > 0) {
            EXPECT_EQ(mac_t({out[0], out[1], out[2], out[3], out[4], out[5]}),
                      mac_t({0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}));
        }
    }
    EXPECT_EQ(hex_digit_value('f'), 15);
    EXPECT_EQ(hex_digit_value('G'), -1);
}

TEST_F(known_ap_test, LoadTakesTheRadiosLinesAndOnlyAdds)
{
    load_known_aps(neighbours().known_ap_tables[0], "wlan0");
    EXPECT_EQ(log_count("file pointer not opened [2|No such file or directory]\n"), 1);
    EXPECT_TRUE(table_rows(0).empty());

    testutil::write_file("/tmp/run/config",
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

TEST_F(known_ap_test, OverLongLineIsSkippedWithItsTail)
{
    // The tail beyond character 255 looks like a qualifying line of its own.
    std::string line = "system:apList:knownApTable:wlan0:1:0A1B2C3D4E50 1,0 ";
    line.append(256 - line.size(), 'x');
    line += "system:apList:knownApTable:wlan0:2:0A1B2C3D4E60 1,1\n";
    std::string fits = "system:apList:knownApTable:wlan0:3:0A1B2C3D4E70 1,1 ";
    fits.append(255 - fits.size(), 'y');
    testutil::write_file("/tmp/run/config", line + fits + "\n");
    load_known_aps(neighbours().known_ap_tables[0], "wlan0");
    EXPECT_EQ(table_rows(0), (std::vector<std::string>{row("0a:1b:2c:3d:4e:70", "Yes", "TRM")}));
    EXPECT_EQ(log_count("[dorvand] Skipped a line of /tmp/run/config longer than 255 characters\n"), 1);
}

}  // namespace
