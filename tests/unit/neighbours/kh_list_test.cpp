// Key-holder list: the MAC derivation, duplicates, scan matching and the
// reload of the key-holder file.
#include <string>

#include "nb_fixture.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::log_count;
using testutil::script_runs;

class kh_list_test : public neighbours_test {};

struct derive_case {
    uint8_t family;
    int radio;
    uint8_t ap_type;
    uint8_t channel;
    uint8_t in;
    uint8_t out;
    const char* rule_line;  // the INFO line of the rule, or null for the default rule
};

constexpr const char* dbdr_trv = "add_to_kh_list: mac addr calculation for DBDR and TBTR APs\n";
constexpr const char* dbdr_trm = "add_to_kh_list: mac addr calculation for DBDR APs and TBTR APs\n";
constexpr const char* dbtr = "add_to_kh_list: mac addr calculation for DBTR APs\n";

const derive_case derive_cases[] = {
    // Default rule: + ethOffset - radio * wlanDiff.
    {0, 0, 0, 0, 0x50, 0x5F, nullptr},
    {0, 2, 0, 0, 0x50, 0x3F, nullptr},
    {1, 0, 0, 0, 0x50, 0x6F, nullptr},
    {1, 2, 0, 0, 0x50, 0x2F, nullptr},
    {0, 1, 0, 0, 0x00, 0xFF, nullptr},  // wraps below 0x00, mac[4] unchanged
    {0, 0, 0, 0, 0xF5, 0x04, nullptr},  // wraps above 0xFF
    // DBDR/TBTR (types 1 and 6) on channels 100..173: - 1 on every radio.
    {0, 0, 1, 149, 0x50, 0x4F, dbdr_trv},
    {0, 2, 6, 100, 0x50, 0x4F, dbdr_trv},
    {1, 0, 6, 173, 0x50, 0x4F, dbdr_trm},
    {0, 0, 1, 99, 0x50, 0x5F, nullptr},
    {1, 0, 6, 174, 0x50, 0x6F, nullptr},
    // DBTR (type 4) on channels 100..173, radio 1 only.
    {0, 1, 4, 149, 0x50, 0x3F, dbtr},
    {1, 1, 4, 100, 0x50, 0x2F, dbtr},
    {0, 1, 4, 173, 0x05, 0xF4, dbtr},
    {0, 0, 4, 149, 0x50, 0x5F, nullptr},
    {0, 2, 4, 149, 0x50, 0x3F, nullptr},
    {1, 1, 4, 99, 0x50, 0x4F, nullptr},
    {0, 1, 4, 174, 0x50, 0x4F, nullptr},
    // Other codes take the default rule; unknown families derive nothing.
    {0, 0, 2, 149, 0x50, 0x5F, nullptr},
    {2, 0, 0, 0, 0x50, 0x50, nullptr},
    {7, 1, 1, 149, 0x50, 0x50, nullptr},
};

TEST_F(kh_list_test, DerivationTable)
{
    for (const derive_case& c : derive_cases) {
        SCOPED_TRACE(testing::Message() << "family " << int(c.family) << " radio " << c.radio << " type "
                                        << int(c.ap_type) << " channel " << int(c.channel) << " in " << int(c.in));
        reset_neighbour_state();
        testutil::reset_sandbox();
        kh_candidate cand{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, c.in}, 1, c.family, c.channel, c.ap_type};
        uint8_t changed = 0;
        add_to_kh_list(&cand, c.radio, &changed, KH_MODE_DERIVE);
        EXPECT_EQ(changed, 1);
        EXPECT_EQ(list_macs(), std::vector<mac_t>({{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, c.out}}));
        EXPECT_EQ(log_count("mac addr calculation"), c.rule_line ? 1 : 0);
        if (c.rule_line) {
            EXPECT_EQ(log_count(c.rule_line), 1);
        }
    }
}

TEST_F(kh_list_test, TraversalPrintsTheListAndSetsTheFlag)
{
    traverse_kh_list();
    EXPECT_EQ(neighbours().kh_list_nonempty, 0);
    append_key_holder({0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, 1, 0);
    append_key_holder({0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x6F}, 0, 1);
    size_t from = log_size();
    traverse_kh_list();
    EXPECT_EQ(neighbours().kh_list_nonempty, 1);
    EXPECT_EQ(log_messages(from),
              (std::vector<std::string>{"########## LIST TRAVERSAL ##############", "\t MAC \t\t ACTIVE\tFAMILY",
                                        "0a-1b-2c-3d-4e-5f | YES | TRV ", "0a-1b-2c-3d-4e-6f | NO | TRM "}));
}

TEST_F(kh_list_test, ScanMatchesOfOneKnownApAddOneKeyHolder)
{
    const mac_t ap = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50};
    add_to_ht(neighbours().known_ap_tables[0], ap.data(), 1, 0, 0, 0);
    // Two BSSIDs of one DBDR/TBTR AP on high 5 GHz channels: the scan's
    // channel and type pick the derivation.
    scan_ap_record recs[3] = {
        {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x52}, 149, 1},
        {{0x11, 0x22, 0x33, 0x44, 0x55, 0x66}, 6, 0},
        {{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x53}, 100, 6},
    };
    key_holders_from_scan(recs, 3, 0);
    EXPECT_EQ(list_macs(), std::vector<mac_t>({{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x4F}}));
    EXPECT_EQ(file_macs(), list_macs());
    EXPECT_EQ(script_runs(), 1);
    EXPECT_EQ(log_count(" 1 | 0a:1b:2c:3d:4e:52"), 1);
    EXPECT_EQ(log_count(" 3 | 0a:1b:2c:3d:4e:53"), 1);
    EXPECT_EQ(log_count("[dorvand] 0a-1b-2c-3d-4e-50 TRV  \n"), 2);  // the known AP's MAC, not the BSSID
    EXPECT_EQ(log_count(dbdr_trv), 2);
    EXPECT_EQ(log_count("0a:1b:2c:3d:4e:4f is already cached in MKH\n"), 2);

    // Nothing new: no script.
    key_holders_from_scan(recs, 3, 0);
    EXPECT_EQ(script_runs(), 1);
}

// Stored key holders come back as stored (not derived again), once however
// many radios the board has, whole records only; the script runs when that
// changed the list.
TEST_F(kh_list_test, ReloadTakesWholeStoredRecords)
{
    std::vector<unsigned char> bytes = record_of({0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, 1, 1);
    std::vector<unsigned char> inactive = record_of({0x0A, 0x1B, 0x2C, 0x3D, 0x5E, 0x5F}, 0, 0);
    bytes.insert(bytes.end(), inactive.begin(), inactive.end());
    bytes.insert(bytes.end(), {1, 2, 3});  // a torn last record
    board().radio_count = 2;
    testutil::write_file(testutil::at("/var/roam_key_holders"), std::string(bytes.begin(), bytes.end()));
    reload_key_holders();
    EXPECT_EQ(list_macs(),
              (std::vector<mac_t>{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, {0x0A, 0x1B, 0x2C, 0x3D, 0x5E, 0x5F}}));
    EXPECT_EQ(log_count("0a:1b:2c:3d:4e:5f PRESENT | TRM \n"), 1);
    EXPECT_EQ(log_count("0a:1b:2c:3d:5e:5f NOT PRESENT | TRV \n"), 1);
    EXPECT_EQ(script_runs(), 1);

    // The same records as bytes: nothing new, no script.
    reload_key_holders_from(bytes.data(), bytes.size());
    EXPECT_EQ(list_macs().size(), 2u);
    EXPECT_EQ(script_runs(), 1);
}

}  // namespace
