// Product lookup from the board file and the rogue-AP setting (the date texts are
// checked where the scan rows carry them).
#include <string>

#include "board/roam_lib.h"
#include "test_util.h"

using testutil::write_file;

namespace {

struct board_case {
    const char* name;
    const char* file;  // null: no board file
    const char* product;
    int radio_type;
};

class board_test : public sandbox_test, public ::testing::WithParamInterface<board_case> {};

TEST_P(board_test, ProductIdAndRadioType)
{
    const board_case& c = GetParam();
    if (c.file)
        write_file("/etc/board", c.file);
    else
        std::remove("/etc/board");
    char id[12] = {};
    EXPECT_EQ(get_radio_type(id), c.radio_type);
    EXPECT_STREQ(id, c.product);
}

INSTANTIATE_TEST_SUITE_P(
    Rows, board_test,
    ::testing::Values(board_case{"Plain", "ProductID=TRM226\n", "TRM226", 0},
                      board_case{"OneBlankSkipped", "ProductID= TRM226\n", "TRM226", 0},
                      board_case{"SecondBlankKept", "ProductID=  TRM226\n", " TRM226", -1},
                      board_case{"NoNewlineLosesLastChar", "ProductID=TRM226", "TRM22", 0},
                      board_case{"LongerNameIsNotPrefixOfShorter", "ProductID=TRM238P\n", "TRM238P", 2},
                      board_case{"ExactBeatsLaterLongerRow", "ProductID=TRM204\n", "TRM204", 0},
                      board_case{"PrefixTakesFirstRow", "ProductID=TRM2\n", "TRM2", 0},
                      board_case{"TriRadioType1", "ProductID=TRM238\n", "TRM238", 1},
                      board_case{"KeyFoundInsideLongerKey", "Other=1\nxProductID=TRV146\nProductID=TRV118\n", "TRV146", 1},
                      board_case{"NoKeyMeansEmptyId", "Model=abc\n", "", 0},
                      board_case{"MissingFileLeavesQuote", nullptr, "\"", -1},
                      board_case{"OverlongValueIsCut", "ProductID=TRM238P0123456789\n", "TRM238P0123", -1},
                      board_case{"DelimiterBeforeKey", "a=b ProductID=TRV146\n", "b ProductID", -1}),
    [](const auto& tp) { return std::string(tp.param.name); });

// The daemon reads only the product id's text: an empty value at the end of
// the file copies nothing at all, and a missing file is -1.
TEST_F(sandbox_test, ReadKeyValueEmptyValueAndMissingFile)
{
    write_file("/tmp/kv", "alpha=12\ndelta=");
    char out[8] = "old";
    EXPECT_EQ(read_key_value("/tmp/kv", "delta", '=', out, sizeof out), 0);
    EXPECT_STREQ(out, "old");
    EXPECT_EQ(read_key_value("/tmp/missing", "alpha", '=', out, sizeof out), -1);
}

struct rogue_case {
    const char* name;
    const char* config;  // null: no config file
    int wlan0;
    int wlan1;
};

class rogue_test : public sandbox_test, public ::testing::WithParamInterface<rogue_case> {};

TEST_P(rogue_test, SettingPerRadio)
{
    const rogue_case& c = GetParam();
    if (c.config)
        write_file("/tmp/run/config", c.config);
    EXPECT_EQ(get_rogue_ap_detection("wlan0"), c.wlan0);
    EXPECT_EQ(get_rogue_ap_detection("wlan1"), c.wlan1);
}

INSTANTIATE_TEST_SUITE_P(
    Values, rogue_test,
    ::testing::Values(
        rogue_case{"OnAndOff",
                   "system:wlanSettings:wlanSettingTable:wlan0:rogueApDetection 1\n"
                   "system:wlanSettings:wlanSettingTable:wlan1:rogueApDetection 0\n",
                   1, 0},
        rogue_case{"MissingKey", "system:wlanSettings:wlanSettingTable:wlan0:rogueApDetection 1\n", 1, -1},
        rogue_case{"MissingFile", nullptr, -1, -1},
        rogue_case{"FirstLineWins",
                   "system:wlanSettings:wlanSettingTable:wlan0:rogueApDetection 0\n"
                   "system:wlanSettings:wlanSettingTable:wlan0:rogueApDetection 1\n",
                   0, -1},
        rogue_case{"WordCutToSevenCharacters",
                   "system:wlanSettings:wlanSettingTable:wlan0:rogueApDetection 123456789\n", 1234567, -1}),
    [](const auto& tp) { return std::string(tp.param.name); });

}  // namespace
