// Product lookup from the board file.
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
        write_file(testutil::at("/etc/board"), c.file);
    else
        std::remove(testutil::at("/etc/board").c_str());
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
                      board_case{"KeyFoundInsideLongerKey", "Other=1\nxProductID=TRV146\nProductID=TRV118\n", "TRV146", 1},
                      board_case{"NoKeyMeansEmptyId", "Model=abc\n", "", 0},
                      board_case{"MissingFileLeavesQuote", nullptr, "\"", -1},
                      board_case{"OverlongValueIsCut", "ProductID=TRM238P0123456789\n", "TRM238P0123", -1},
                      board_case{"DelimiterBeforeKey", "a=b ProductID=TRV146\n", "b ProductID", -1},
                      board_case{"KeyWithoutDelimiterSkipped", "ProductID TRM226\nProductID=TRM238\n", "TRM238", 1},
                      board_case{"EmptyLastValueLeavesIdEmpty", "ProductID=", "", 0}),
    [](const auto& tp) { return std::string(tp.param.name); });

}  // namespace
