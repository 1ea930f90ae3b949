// Key-holder files: record bytes and write modes, the ap2_macaddr rewrite,
// and the key-change writers.
#include <sys/stat.h>

#include <string>

#include "nb_fixture.h"
#include "board/board.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::exists;
using testutil::log_count;
using testutil::read_bytes;
using testutil::read_file;
using testutil::write_file;

constexpr const char* ap2mac = "/tmp/ap2_macaddr.txt";
constexpr const char* key_changes = "/tmp/ft_key_changed.txt";

const mac_t kh_a = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F};
const mac_t kh_b = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x6F};

class kh_files_test : public neighbours_test {};

std::vector<unsigned char> concat(std::initializer_list<std::vector<unsigned char>> parts)
{
    std::vector<unsigned char> out;
    for (const auto& p : parts)
        out.insert(out.end(), p.begin(), p.end());
    return out;
}

void write_bytes(const std::vector<unsigned char>& bytes)
{
    write_file("/var/roam_key_holders", std::string(bytes.begin(), bytes.end()));
}

TEST_F(kh_files_test, AppendModeSkipsStoredEntriesRewriteModeWritesTheList)
{
    append_key_holder(kh_a, 1, 0);
    append_key_holder(kh_b, 0, 1);
    std::vector<unsigned char> stored_a = record_of(kh_a, 1, 0);
    std::fill(stored_a.begin(), stored_a.begin() + 8, 0xAA);  // a writer's stale link words
    std::vector<unsigned char> stale = record_of({1, 2, 3, 4, 5, 6}, 1, 0);
    write_bytes(concat({stored_a, stale}));

    write_key_holders("a");
    EXPECT_EQ(read_bytes("/var/roam_key_holders"), concat({stored_a, stale, record_of(kh_b, 0, 1)}));
    EXPECT_EQ(log_count("0a:1b:2c:3d:4e:5f is already cached in MKH\n"), 1);
    EXPECT_EQ(log_count("is already cached in MKH"), 1);

    write_key_holders("w");
    EXPECT_EQ(read_bytes("/var/roam_key_holders"), concat({record_of(kh_a, 1, 0), record_of(kh_b, 0, 1)}));
    EXPECT_EQ(log_count("is already cached in MKH"), 1);
    EXPECT_FALSE(exists("/var/roam_key_holders.tmp"));

    free_kh_list();
    write_key_holders("w");
    EXPECT_TRUE(exists("/var/roam_key_holders"));
    EXPECT_TRUE(read_bytes("/var/roam_key_holders").empty());
}

TEST_F(kh_files_test, Ap2macAddCreatesAppendsAndSkipsDuplicates)
{
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:60", 0), 0);
    EXPECT_FALSE(exists(ap2mac)) << "a deletion without a file creates nothing";
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:50", 1), 0);
    EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50\n");
    EXPECT_EQ(ap2mac_update("wifi1vap3", "0A:1B:2C:3D:4E:71", 1), 0);
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:60", 1), 0);
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:50", 1), 0);
    EXPECT_EQ(read_file(ap2mac),
              "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60\n"
              "ap2_macaddr_wifi1vap3=0A:1B:2C:3D:4E:71\n");
    EXPECT_FALSE(exists("/tmp/tmp_ap2_macaddr.txt"));
}

TEST_F(kh_files_test, Ap2macDeleteLeavesATrailingBlank)
{
    write_file(ap2mac, "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70\n");
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:60", 0), 0);
    EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:70 \n");
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:80", 1), 0);
    EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:70  0A:1B:2C:3D:4E:80\n");
    // Deleting the first BSSID, then every other one, leaves the bare key.
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:50", 0), 0);
    EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:70 0A:1B:2C:3D:4E:80 \n");
    ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:70", 0);
    ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:80", 0);
    EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=\n");
}

}  // namespace
