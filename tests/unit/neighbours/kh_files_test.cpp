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

// A torn last record (a power cut mid-append) is cut off before the next
// append, so every later record stays on its 16-byte boundary.
TEST_F(kh_files_test, AppendAfterATornRecordStartsOnARecordBoundary)
{
    append_key_holder(kh_a, 1, 0);
    append_key_holder(kh_b, 0, 1);
    std::vector<unsigned char> torn = record_of(kh_a, 1, 0);
    write_bytes(concat({torn, {0xDE, 0xAD, 0xBE}}));
    write_key_holders("a");
    EXPECT_EQ(read_bytes("/var/roam_key_holders"), concat({torn, record_of(kh_b, 0, 1)}));
}

TEST_F(kh_files_test, RecordLayoutByteByByte)
{
    append_key_holder({0x01, 0x02, 0x03, 0x04, 0x05, 0x06}, 0x07, 0x08);
    write_key_holders("a");
    std::vector<unsigned char> want = {0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    EXPECT_EQ(read_bytes("/var/roam_key_holders"), want);
    EXPECT_TRUE(key_holder_cached(*neighbours().kh_list.next));
}

TEST_F(kh_files_test, CachedComparesTheMacOfWholeRecords)
{
    append_key_holder(kh_a, 1, 0);
    EXPECT_FALSE(key_holder_cached(*neighbours().kh_list.next));  // no file
    std::vector<unsigned char> partial = record_of(kh_a, 1, 0);
    partial.resize(15);
    write_bytes(concat({record_of(kh_b, 1, 0), partial}));
    EXPECT_FALSE(key_holder_cached(*neighbours().kh_list.next));
    write_bytes(concat({record_of(kh_b, 1, 0), record_of(kh_a, 0, 1)}));
    EXPECT_TRUE(key_holder_cached(*neighbours().kh_list.next));
}

TEST_F(kh_files_test, RewriteFailureKeepsTheOldFile)
{
    append_key_holder(kh_a, 1, 0);
    write_bytes(record_of(kh_b, 1, 0));
    ASSERT_EQ(mkdir("/var/roam_key_holders.tmp", 0755), 0);  // the temporary file cannot be opened
    write_key_holders("w");
    EXPECT_EQ(read_bytes("/var/roam_key_holders"), record_of(kh_b, 1, 0));
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

TEST_F(kh_files_test, Ap2macRewriteDropsShortForeignLines)
{
    write_file(ap2mac,
               "x\n"
               "nineteen_characters\n"
               "twenty_characters_ok\n"
               "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50\n"
               "\n");
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:60", 1), 0);
    EXPECT_EQ(read_file(ap2mac),
              "twenty_characters_ok\n"
              "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60\n");
}

TEST_F(kh_files_test, Ap2macTemporaryFileFailureLeavesTheFile)
{
    const std::string before = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50\n";
    write_file(ap2mac, before);
    ASSERT_EQ(mkdir("/tmp/tmp_ap2_macaddr.txt", 0755), 0);
    EXPECT_EQ(ap2mac_update("wifi0vap0", "0A:1B:2C:3D:4E:50", 0), -1);
    EXPECT_EQ(read_file(ap2mac), before);
    EXPECT_EQ(log_count("Failed to open the TMP AP2MAC file \"(/tmp/tmp_ap2_macaddr.txt)\" [ Reason = "), 1);
    EXPECT_EQ(ap2mac_remove_vap("ap2_macaddr_wifi0vap0"), -1);
    EXPECT_EQ(log_count("Failed to open the TMP AP2MAC file \"(/tmp/tmp_ap2_macaddr.txt)\"  [ Reason = "), 1);
    EXPECT_EQ(read_file(ap2mac), before);
}

TEST_F(kh_files_test, KeyChangeOnAdditionWritesEveryEnabledVap)
{
    struct {
        uint8_t family;
        mac_t kh;
        uint32_t vaps;
        int radios;
        const char* key_changes;
        const char* ap2mac;
    } cases[] = {
        {0, kh_a, 1u << 0, 3, "ft_key_changed_wifi0vap0=1,1\n",
         "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70\n"},
        {1, kh_b, 1u << 0, 3, "ft_key_changed_wifi0vap0=1,1\n",
         "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:51 0A:1B:2C:3D:4E:71 0A:1B:2C:3D:4E:91\n"},
        // Radio 2's bit is ignored on a two-radio board; VAPs in radio, then VAP order.
        {0, kh_a, (1u << 12) | (1u << 1) | (1u << 20), 2,
         "ft_key_changed_wifi0vap1=1,1\nft_key_changed_wifi1vap2=1,1\n",
         "ap2_macaddr_wifi0vap1=0A:1B:2C:3D:4E:51 0A:1B:2C:3D:4E:61 0A:1B:2C:3D:4E:71\n"
         "ap2_macaddr_wifi1vap2=0A:1B:2C:3D:4E:52 0A:1B:2C:3D:4E:62 0A:1B:2C:3D:4E:72\n"},
        // The last byte wraps past 0xFF; the other five stay.
        {1, {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0xEF}, 1u << 9, 3, "ft_key_changed_wifi0vap9=1,1\n",
         "ap2_macaddr_wifi0vap9=0A:1B:2C:3D:4E:DA 0A:1B:2C:3D:4E:FA 0A:1B:2C:3D:4E:1A\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.ap2mac);
        testutil::reset_sandbox();
        neighbours().ft_enabled_vaps = c.vaps;
        board().radio_count = static_cast<uint8_t>(c.radios);
        kh_candidate cand{{c.kh[0], c.kh[1], c.kh[2], c.kh[3], c.kh[4], c.kh[5]}, 1, c.family, 0, 0};
        key_change_on_addition(cand);
        EXPECT_EQ(read_file(key_changes), c.key_changes);
        EXPECT_EQ(read_file(ap2mac), c.ap2mac);
    }
}

TEST_F(kh_files_test, DeletionUndoesAdditionForEveryRadioAndFamily)
{
    neighbours().ft_enabled_vaps = (1u << 0) | (1u << 13);
    for (uint8_t family = 0; family < 2; ++family) {
        for (int radio = 0; radio < 3; ++radio) {
            SCOPED_TRACE(testing::Message() << "family " << int(family) << " radio " << radio);
            testutil::reset_sandbox();
            const mac_t neighbour = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50};
            kh_candidate cand{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50}, 1, family, 0, 0};
            uint8_t changed = 0;
            add_to_kh_list(&cand, radio, &changed, KH_MODE_DERIVE);
            ASSERT_EQ(changed, 1);
            mac_t mac = neighbour;
            key_change_on_deletion(radio, family, mac.data());
            EXPECT_EQ(mac[5], cand.mac[5]);  // the key holder's last byte
            EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=\nap2_macaddr_wifi1vap3=\n");
            EXPECT_EQ(read_file(key_changes),
                      "ft_key_changed_wifi0vap0=1,1\nft_key_changed_wifi1vap3=1,1\n"
                      "ft_key_changed_wifi0vap0=1,0\nft_key_changed_wifi1vap3=1,0\n");
            free_kh_list();
        }
    }
}

TEST_F(kh_files_test, StatusChangeRemovesOrAddsTheVapsLine)
{
    write_file(ap2mac,
               "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50\n"
               "ap2_macaddr_wifi1vap2=0A:1B:2C:3D:4E:52 0A:1B:2C:3D:4E:62\n"
               "short\n");
    kh_entry entry{};
    std::copy(kh_a.begin(), kh_a.end(), entry.mac);
    vap_ft_status_changed(1, 2, entry, 0);
    EXPECT_EQ(read_file(ap2mac), "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50\n");
    EXPECT_EQ(read_file(key_changes), "ft_key_changed_wifi1vap2=1,0\n");

    vap_ft_status_changed(1, 2, entry, 1);
    EXPECT_EQ(read_file(ap2mac),
              "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50\n"
              "ap2_macaddr_wifi1vap2=0A:1B:2C:3D:4E:52 0A:1B:2C:3D:4E:62 0A:1B:2C:3D:4E:72\n");
    EXPECT_EQ(read_file(key_changes), "ft_key_changed_wifi1vap2=1,0\nft_key_changed_wifi1vap2=1,1\n");
}

TEST_F(kh_files_test, UnopenableKeyChangeFileStopsTheWriter)
{
    neighbours().ft_enabled_vaps = 1;
    ASSERT_EQ(mkdir(key_changes, 0755), 0);
    kh_candidate cand{{0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F}, 1, 0, 0, 0};
    key_change_on_addition(cand);
    EXPECT_FALSE(exists(ap2mac));
    EXPECT_EQ(
        log_count("Failed to open the KEY_CHANGE file \"(/tmp/ft_key_changed.txt)\" [ Reason = Is a directory(21)]"), 1);
}

}  // namespace
