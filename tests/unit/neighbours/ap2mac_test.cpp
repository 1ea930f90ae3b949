// The ap2_macaddr file when it holds lines the daemon would not write (too
// long, too short, full, foreign), and its rebuild from the key-holder list.
#include <optional>
#include <string>

#include "nb_fixture.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::at;
using testutil::log_count;
using testutil::read_file;
using testutil::write_file;

class ap2mac_test : public neighbours_test {};

const std::string key0 = "ap2_macaddr_wifi0vap0=";

std::string bssid(uint8_t hi, uint8_t lo)
{
    char text[18];
    snprintf(text, sizeof text, "0A:1B:2C:3D:%02X:%02X", static_cast<unsigned>(hi), static_cast<unsigned>(lo));
    return text;
}

// The first `n` BSSIDs 0A:1B:2C:3D:00:00, ...:00:01, ... joined by blanks.
std::string bssids(int n)
{
    std::string out;
    for (int i = 0; i < n; ++i)
        out += (i ? " " : "") + bssid(0, i);
    return out;
}

TEST_F(ap2mac_test, RewriteDropsWhatItCannotKeep)
{
    constexpr int remove_vap = 2;  // ap2mac_remove_vap rather than a BSSID added (1) or deleted (0)
    struct rewrite_case {
        const char* name;
        std::optional<std::string> before;  // nullopt: no file
        int op;
        std::optional<std::string> after;
        std::string log;
    };
    const std::string full = key0 + bssids(55);  // 1011 characters: one more BSSID would pass 1022
    std::string spaced = "ap2_macaddr_wifi0vap0";
    for (int i = 0; i < 500; ++i)
        spaced += " T";  // 1021 characters, and each token a blank longer once rebuilt
    std::string rebuilt = key0 + " ";
    for (int i = 0; i < 499; ++i)
        rebuilt += "T ";
    const rewrite_case cases[] = {
        {"over-long last line", key0 + bssid(0x4E, 0x50) + "\n" + std::string(2000, 'x'), 1,
         key0 + bssid(0x4E, 0x50) + " " + bssid(0x4E, 0x60) + "\n",
         "[dorvand] Dropped a line of " + at("/tmp/ap2_macaddr.txt") + " longer than 1022 characters\n"},
        {"short lines", "x\n1234567890123456789\n12345678901234567890\n" + key0 + bssid(0x4E, 0x50) + "\n", 1,
         "12345678901234567890\n" + key0 + bssid(0x4E, 0x50) + " " + bssid(0x4E, 0x60) + "\n", ""},
        {"full line", full + "\n", 1, full + "\n",
         "[dorvand] ap2_macaddr line full, " + bssid(0x4E, 0x60) + " not added\n"},
        {"deletion outgrowing the bound", spaced + "\n", 0, rebuilt + "\n",
         "[dorvand] ap2_macaddr line full, T dropped\n"},
        // Deleting from a file without the VAP's line (or without the file)
        // adds nothing.
        {"deletion without the line", "other_setting=1234567890\n", 0, "other_setting=1234567890\n", ""},
        {"deletion without the file", std::nullopt, 0, std::nullopt, ""},
        {"VAP line removed",
         "short\n" + key0 + bssid(0x4E, 0x50) + "\nap2_macaddr_wifi0vap1=" + bssid(0x4E, 0x51) + "\n", remove_vap,
         "ap2_macaddr_wifi0vap1=" + bssid(0x4E, 0x51) + "\n",
         "107 [dorvand] str:ap2_macaddr_wifi0vap1=" + bssid(0x4E, 0x51) + ", buf:ap2_macaddr_wifi0vap0\n"},
    };
    for (const rewrite_case& c : cases) {
        SCOPED_TRACE(c.name);
        testutil::reset_sandbox();
        if (c.before)
            write_file(at("/tmp/ap2_macaddr.txt"), *c.before);
        EXPECT_EQ(c.op == remove_vap ? ap2mac_remove_vap("ap2_macaddr_wifi0vap0")
                                     : ap2mac_update("wifi0vap0", bssid(0x4E, 0x60).c_str(), c.op),
                  0);
        EXPECT_EQ(file_text("/tmp/ap2_macaddr.txt"), c.after);
        if (!c.log.empty()) {
            EXPECT_EQ(log_count(c.log), 1);
        }
    }
}

// The rebuild writes every enabled VAP's line from the list in the file's
// order (a missing one at the end), keeps other lines of 20 characters or
// more, and drops over-long and short lines, a second line of one VAP and
// the lines of VAPs with 802.11r off.
TEST_F(ap2mac_test, RebuildWritesEnabledLinesFromTheList)
{
    append_key_holder({0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, 1, 0);
    append_key_holder({0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x6F}, 1, 0);  // shares two BSSIDs with the first
    board().radio_count = 2;                                        // a third radio's line is not the daemon's: kept
    const std::string kept = "ap2_macaddr_wifi2vap0=x\nother_setting=1234567890\n";
    write_file(at("/tmp/ap2_macaddr.txt"), kept + "short\n" + std::string(1500, 'y') + "\n" + key0 + bssid(0x11, 0x11) +
                                               "\n" + key0 + bssid(0x22, 0x22) + "\n" +
                                               "ap2_macaddr_wifi0vap1=" + bssid(0x33, 0x33) + "\n");
    ASSERT_EQ(ap2mac_rebuild(1U | 1U << 10), 0);
    const std::string line =
        bssid(0x4E, 0x50) + " " + bssid(0x4E, 0x60) + " " + bssid(0x4E, 0x70) + " " + bssid(0x4E, 0x80) + "\n";
    EXPECT_EQ(read_file(at("/tmp/ap2_macaddr.txt")), kept + key0 + line + "ap2_macaddr_wifi1vap0=" + line);
    EXPECT_FALSE(testutil::exists(at("/tmp/tmp_ap2_macaddr.txt")));

    // An empty list leaves the enabled VAPs' lines empty and adds none.
    free_kh_list();
    ASSERT_EQ(ap2mac_rebuild(1U | 1U << 1), 0);
    EXPECT_EQ(read_file(at("/tmp/ap2_macaddr.txt")), kept + key0 + "\n");
}

// 19 key holders give 57 BSSIDs; 55 of them fill the line to 1011
// characters, one more would pass 1022: the line ends with the first BSSID of
// the 19th key holder.
TEST_F(ap2mac_test, RebuiltLineStopsAtTheBound)
{
    for (int i = 0; i < 19; ++i)
        append_key_holder({0x0A, 0x1B, 0x2C, 0x3D, static_cast<uint8_t>(i), 0x5F}, 1, 0);
    ASSERT_EQ(ap2mac_rebuild(1U), 0);
    const std::string text = read_file(at("/tmp/ap2_macaddr.txt"));
    ASSERT_EQ(text.size(), 1012u);
    EXPECT_EQ(text.substr(0, 76), key0 + "0A:1B:2C:3D:00:50 0A:1B:2C:3D:00:60 0A:1B:2C:3D:00:70 ");
    EXPECT_EQ(text.substr(976), "0A:1B:2C:3D:11:70 0A:1B:2C:3D:12:50\n");
}

}  // namespace
