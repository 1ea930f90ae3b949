// Board lookups: the product table through the board file, the key/value
// reader's bounds, the rogue-AP and date commands, and each of them when its
// file is missing or its shell cannot be started.
#include <cstdio>
#include <string>

#include "board/board.h"
#include "board/roam_lib.h"
#include "dorvfault.h"
#include "test_util.h"

using testutil::at;
using testutil::log_count;
using testutil::write_file;

namespace {

using roam_lib = sandbox_test;

// Loads a board file (null: none) and checks what the daemon learns from it:
// the product, the table row it matched, the radio type and count.
void expect_load(const char* file, const char* product, const char* row, int type, int radios)
{
    SCOPED_TRACE(file ? file : "(no board file)");
    testutil::reset_sandbox();
    if (file)
        write_file(at("/etc/board"), file);
    else
        std::remove(at("/etc/board").c_str());
    board() = board_info{};
    board_load();
    EXPECT_STREQ(board().product_id, product);
    EXPECT_EQ(board().radio_type_val, type);
    EXPECT_EQ(board().radio_count, radios);
    const product_info* match = match_product(product);
    EXPECT_STREQ(match ? match->name : nullptr, row);
    if (match) {
        EXPECT_EQ(match->radios, radios);
        EXPECT_EQ(log_count("[roam_lib] product Id matches {" + std::string(product) + "|" + row +
                            "}| radio_type_val = " + std::to_string(type) + " \n"),
                  1);
    }
}

TEST_F(roam_lib, every_product_of_the_table)
{
    const struct {
        const char* id;
        int radios, type;
    } rows[] = {{"TRV118", 2, 0},  {"TRV113", 2, 0}, {"TRV146", 3, 1}, {"TRV162", 3, 1},  {"TRM204", 2, 0},
                {"TRM204K", 2, 0}, {"TRM226", 2, 0}, {"TRM238", 3, 1}, {"TRM238P", 3, 2}, {"TRM241P", 3, 2},
                {"TRM209", 2, 0},  {"TRM221", 2, 0}, {"TRM213", 2, 0}, {"TRM233", 2, 0}};
    for (const auto& r : rows)
        expect_load(("ProductID=" + std::string(r.id) + "\n").c_str(), r.id, r.id, r.type, r.radios);
}

// How the identifier is read, and the first row it is a prefix of.
TEST_F(roam_lib, board_file_forms)
{
    const struct {
        const char* file;
        const char* product;
        const char* row;
        int type, radios;
    } rows[] = {
        {"ProductID= TRM226\n", "TRM226", "TRM226", 0, 2},
        {"ProductID=  TRM226\n", " TRM226", nullptr, -1, 3},
        {"ProductID=TRM226", "TRM22", "TRM226", 0, 2},  // a last line loses its last byte
        {"ProductID=TRM2\n", "TRM2", "TRM204", 0, 2},
        {"ProductID=TRM24\n", "TRM24", "TRM241P", 2, 3},
        {"Other=1\nxProductID=TRV146\nProductID=TRV118\n", "TRV146", "TRV146", 1, 3},
        {"Model=abc\n", "", "TRV118", 0, 2},
        {nullptr, "\"", nullptr, -1, 3},
        {"ProductID=TRM238P0123456789\n", "TRM238P0123", nullptr, -1, 3},
        {"a=b ProductID=TRV146\n", "b ProductID", nullptr, -1, 3},
        {"ProductID TRM226\nProductID=TRM238\n", "TRM238", "TRM238", 1, 3},
        {"ProductID=", "", "TRV118", 0, 2},
    };
    for (const auto& r : rows)
        expect_load(r.file, r.product, r.row, r.type, r.radios);
}

// The reader on its own: what lands in a buffer of a given size, and the
// number read when no buffer is given.
TEST_F(roam_lib, key_value_bounds_and_numbers)
{
    const std::string long_line = "K=" + std::string(300, 'a') + "\n";
    const struct {
        std::string data;
        size_t out_size;  // 0 with `number`: no buffer
        bool number;
        int rc;
        std::string out;  // the buffer starts as "old"
        int cut_logged;
    } cases[] = {
        {"K=v\n", 8, false, 0, "v", 0},
        {"K=abcdefg\n", 8, false, 0, "abcdefg", 0},
        {"K=abcdefgh\n", 8, false, 0, "abcdefg", 1},
        {"K=abcdefgh\n", 0, false, 0, "old", 0},
        {"X=1\n", 8, false, 0, "old", 0},
        {"K=", 8, false, 0, "old", 0},
        // 255 bytes of a line at a time: 253 of the value, less the last.
        {long_line, 512, false, 0, std::string(252, 'a'), 0},
        {"K=\n", 8, false, 0, "", 0},
        {"K= 42\n", 0, true, 42, "old", 0},
        {"K=  7x\n", 0, true, 7, "old", 0},
        {"X=5\n", 0, true, 0, "old", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.data.substr(0, 20) + " size " + std::to_string(c.out_size));
        char out[512] = "old";
        EXPECT_EQ(parse_key_value(c.data.data(), c.data.size(), "/f", "K", '=', c.number ? nullptr : out, c.out_size),
                  c.rc);
        EXPECT_EQ(std::string(out), c.out);
        EXPECT_EQ(log_count("[roam_lib] Value of K in /f is longer than 7 characters; cut\n"), c.cut_logged);
        testutil::reset_sandbox();
    }
}

// A file that cannot be opened: -1, and what is left of '""' in the room there is.
TEST_F(roam_lib, key_value_missing_file)
{
    const std::string missing = at("/etc/missing");
    char one[1] = {'x'};
    char two[2] = {'x', 'x'};
    EXPECT_EQ(read_key_value(missing.c_str(), "K", '=', one, sizeof one), -1);
    EXPECT_EQ(one[0], '\0');
    EXPECT_EQ(read_key_value(missing.c_str(), "K", '=', two, sizeof two), -1);
    EXPECT_STREQ(two, "\"");
    EXPECT_EQ(read_key_value(missing.c_str(), "K", '=', nullptr, 0), -1);
    EXPECT_EQ(log_count("[roam_lib] Failed to open " + missing + " file (No such file or directory | 2) \n"), 3);
    write_file(at("/etc/numbers"), "K= 42\n");
    EXPECT_EQ(read_key_value(at("/etc/numbers").c_str(), "K", '=', nullptr, 0), 42);
}

TEST(roam_lib_text, rogue_ap_first_word_of_the_setting)
{
    const struct {
        const char* text;
        int value;
    } cases[] = {{"1\n", 1}, {"0\n", 0}, {" 12345678\n", 1234567}, {"on\n", 0}, {"", -1}, {" \n", -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        EXPECT_EQ(parse_rogue_ap_detection(c.text, std::string(c.text).size()), c.value);
    }
}

// The commands' output as a stand-in `date` prints it, cut to the texts'
// bounds; then with no shell to run them in.
TEST_F(roam_lib, command_output_and_commands_that_cannot_start)
{
    write_file(at("/tmp/run/config"), "system:wlanSettings:wlanSettingTable:wlan0:rogueApDetection 1\n"
                                      "system:wlanSettings:wlanSettingTable:wlan2:rogueApDetection 0 x\n");
    write_file(at("/usr/local/bin/date"),
               "#!/bin/sh\nif [ \"$1\" = +%s ]; then echo 12345678901234567890; "
               "else echo 'Wed Nov 25 17:13:31 UTC 2026 and more'; fi\n",
               0755);
    EXPECT_EQ(get_rogue_ap_detection("wlan0"), 1);
    EXPECT_EQ(get_rogue_ap_detection("wlan1"), -1);  // no such line
    EXPECT_EQ(get_rogue_ap_detection("wlan2"), 0);
    char date[32];
    EXPECT_STREQ(get_date_string(date), "Wed Nov 25 17:13:31 UTC ");
    char epoch[17];
    EXPECT_STREQ(get_epoch_string(epoch), "1234567890123456");

    dorvfault::handle h = dorvfault::arm("spawn path=/bin/sh every errno=EAGAIN");
    EXPECT_EQ(get_rogue_ap_detection("wlan0"), -1);
    EXPECT_STREQ(get_date_string(date), "");
    char kept[17] = "untouched";
    EXPECT_STREQ(get_epoch_string(kept), "untouched");
    EXPECT_EQ(dorvfault::fired(h), 3u);
    EXPECT_EQ(log_count("] [ERROR] : Getting Neighbor AP status failed\n"), 1);
    EXPECT_EQ(log_count("] [ERROR] : Error during getting epoch time\n"), 1);
}

}  // namespace
