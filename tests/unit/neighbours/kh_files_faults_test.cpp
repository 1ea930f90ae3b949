// The key-holder files when writing them fails: what each failure logs,
// what the files hold afterwards (whole records, the old file where a
// rewrite failed, no temporary file), and the retry that writes them again
// from the list once the fault is gone.
#include <optional>
#include <string>
#include <vector>

#include "dorvfault.h"
#include "nb_fixture.h"
#include "neighbours/neighbours.h"

namespace {

using testutil::at;
using testutil::exists;
using testutil::log_count;
using testutil::script_runs;
using opt_text = std::optional<std::string>;

const mac_t first = {0x0A, 0x1B, 0x2C, 0x3D, 0x4E, 0x50};
const mac_t second = {0x0A, 0x1B, 0x2C, 0x3D, 0x5E, 0x50};

std::string record(uint8_t b4)
{
    std::vector<unsigned char> r = record_of({0x0A, 0x1B, 0x2C, 0x3D, b4, 0x5F}, 1, 0);
    return std::string(r.begin(), r.end());
}

const char* const kh = "/var/roam_key_holders";
const char* const kh_tmp = "/var/roam_key_holders.tmp";
const char* const ap2 = "/tmp/ap2_macaddr.txt";
const char* const ap2_tmp = "/tmp/tmp_ap2_macaddr.txt";
const char* const kc = "/tmp/ft_key_changed.txt";

// The lines of wifi0vap0 and wifi0vap1 for the key holders of `first` and `second`.
const std::string vap0_first = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70\n";
const std::string vap1_first = "ap2_macaddr_wifi0vap1=0A:1B:2C:3D:4E:51 0A:1B:2C:3D:4E:61 0A:1B:2C:3D:4E:71\n";
const std::string vap0_second = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:5E:50 0A:1B:2C:3D:5E:60 0A:1B:2C:3D:5E:70\n";
const std::string added = "ft_key_changed_wifi0vap0=1,1\n";

class kh_files_faults_test : public neighbours_test {};

std::string failed_open(const char* what, const char* fixed, const char* reason)
{
    return std::string("[dorvand] \n Failed to open the ") + what + " file \"(" + at(fixed) +
           ")\" [ Reason = " + reason + "]";
}

std::string failed_write(const char* what, const char* fixed, const char* reason)
{
    return std::string("[dorvand] \n Failed to write the ") + what + " file \"(" + at(fixed) +
           ")\" [ Reason = " + reason + "]";
}

struct fault_case {
    const char* name;
    bool deletion;  // AP_DELETION of `first` once both key holders are in; else KH_ADDITION of `first`
    uint32_t vaps;
    std::string rule;
    std::vector<std::string> logs;  // what the fault logs
    opt_text kh, ap2, kc;           // the files afterwards (nullopt: absent)
    bool stale;
    int scripts;
    std::string retry_log;  // set: the fault outlasts one retry, which fails logging this
};

TEST_F(kh_files_faults_test, FailedWritesLeaveWholeFilesAndTheRetryCatchesUp)
{
    const std::string rec1 = record(0x4E), rec2 = record(0x5E);
    const std::string no_space = "No space left on device(28)";
    const std::string add_failed = "Failed to add ap2_macaddr to text file \n";
    const std::string part_vap0 = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70\n";
    const std::string gap_vap0 = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:70\n";
    const std::string both_vap0 =
        "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:5E:50 0A:1B:2C:3D:5E:60 0A:1B:2C:3D:5E:70 \n";
    const std::string after_delete = "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:5E:50 0A:1B:2C:3D:5E:60 0A:1B:2C:3D:5E:70 \n";
    const std::string deleted = added + added + "ft_key_changed_wifi0vap0=1,0\n";
    // clang-format off
    const std::vector<fault_case> cases = {
        {"record file open (silent)", false, 1, "open path=*/var/roam_key_holders nth=2 errno=EACCES",
         {}, std::nullopt, vap0_first, added, true, 1, ""},
        {"record writes until the disk has room", false, 1, "write path=*/var/roam_key_holders* every errno=ENOSPC",
         {"fwrite failed [28 | No space left on device ]\n"}, "", vap0_first, added, true, 1,
         "fwrite failed [28 | No space left on device ]\n"},
        {"new ap2_macaddr file", false, 1, "open path=*/tmp/ap2_macaddr.txt nth=2 errno=ENOSPC",
         {failed_open("AP2MAC", ap2, no_space.c_str()), add_failed}, rec1, part_vap0, added, true, 1, ""},
        {"ap2_macaddr append", false, 1, "write path=*/tmp/ap2_macaddr.txt errno=ENOSPC",
         {failed_write("AP2MAC", ap2, no_space.c_str()), add_failed}, rec1, part_vap0, added, true, 1, ""},
        {"ap2_macaddr temporary file", false, 1, "open path=*/tmp/tmp_ap2_macaddr.txt errno=ENOSPC",
         {failed_open("TMP AP2MAC", ap2_tmp, no_space.c_str()), add_failed}, rec1, gap_vap0, added, true, 1, ""},
        {"ap2_macaddr temporary file for good", false, 1, "open path=*/tmp/tmp_ap2_macaddr.txt nth=2 every errno=ENOSPC",
         {failed_open("TMP AP2MAC", ap2_tmp, no_space.c_str())}, rec1,
         "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60\n", added, true, 1,
         failed_write("AP2MAC", ap2_tmp, no_space.c_str())},
        {"ap2_macaddr rename", false, 1, "rename path=*/tmp/tmp_ap2_macaddr.txt errno=EIO",
         {failed_write("TMP AP2MAC", ap2_tmp, "Input/output error(5)")}, rec1, gap_vap0, added, true, 1, ""},
        {"ap2_macaddr rename for good", false, 1, "rename path=*/tmp/tmp_ap2_macaddr.txt nth=2 every errno=EIO",
         {failed_write("TMP AP2MAC", ap2_tmp, "Input/output error(5)")}, rec1,
         "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60\n", added, true, 1,
         failed_write("AP2MAC", ap2_tmp, "Input/output error(5)")},
        // grep finds no line of wifi0vap1 when it cannot run: its first BSSID would be lost.
        {"grep", false, 3, "spawn nth=3 errno=EAGAIN", {}, rec1,
         vap0_first + "ap2_macaddr_wifi0vap1=0A:1B:2C:3D:4E:61 0A:1B:2C:3D:4E:71\n", added + "ft_key_changed_wifi0vap1=1,1\n",
         true, 1, ""},
        // The new line of wifi0vap1 cannot be appended: nothing logs it, the retry writes it.
        {"new line of a second VAP", false, 3, "open path=*/tmp/ap2_macaddr.txt nth=8 errno=ENOSPC", {}, rec1,
         vap0_first + "ap2_macaddr_wifi0vap1=0A:1B:2C:3D:4E:61 0A:1B:2C:3D:4E:71\n", added + "ft_key_changed_wifi0vap1=1,1\n",
         true, 1, ""},
        {"key-change file open", false, 1, "open path=*/tmp/ft_key_changed.txt errno=EACCES",
         {failed_open("KEY_CHANGE", kc, "Permission denied(13)")}, rec1, std::nullopt, std::nullopt, true, 1, ""},
        {"key-change write", false, 1, "write path=*/tmp/ft_key_changed.txt errno=ENOSPC",
         {"[dorvand] Failed to write " + at(kc) + " [28|No space left on device]; the file is kept as it was\n"},
         rec1, vap0_first, "", false, 1, ""},
        {"script", false, 1, "spawn nth=3 errno=EAGAIN", {"Failed to run script [11|Resource temporarily unavailable]\n"},
         rec1, vap0_first, added, false, 0, ""},
        {"record rewrite: temporary file", true, 1, "open path=*/var/roam_key_holders.tmp errno=ENOSPC", {},
         rec1 + rec2, after_delete, deleted, true, 3, ""},
        {"record rewrite: write", true, 1, "write path=*/var/roam_key_holders.tmp errno=ENOSPC",
         {"fwrite failed [28 | No space left on device ]\n"}, rec1 + rec2, after_delete, deleted, true, 3, ""},
        {"record rewrite: rename", true, 1, "rename path=*/var/roam_key_holders.tmp errno=EIO",
         {"fwrite failed [5 | Input/output error ]\n"}, rec1 + rec2, after_delete, deleted, true, 3, ""},
        {"BSSID deletion: temporary file", true, 1, "open path=*/tmp/tmp_ap2_macaddr.txt errno=ENOSPC",
         {failed_open("TMP AP2MAC", ap2_tmp, no_space.c_str()), "Failed to delete ap2_macaddr from text file \n"},
         rec2, both_vap0, deleted, true, 3, ""},
        {"BSSID deletion: file unreadable", true, 1, "open path=*/tmp/ap2_macaddr.txt nth=2 errno=EACCES",
         {failed_open("AP2MAC", ap2, "Permission denied(13)")}, rec2, both_vap0, deleted, true, 3, ""},
        {"BSSID deletion: key-change file", true, 1, "open path=*/tmp/ft_key_changed.txt errno=EACCES",
         {failed_open("KEY_CHANGE", kc, "Permission denied(13)")}, rec2,
         "ap2_macaddr_wifi0vap0=0A:1B:2C:3D:4E:50 0A:1B:2C:3D:4E:60 0A:1B:2C:3D:4E:70 0A:1B:2C:3D:5E:50 "
         "0A:1B:2C:3D:5E:60 0A:1B:2C:3D:5E:70\n",
         added + added, true, 3, ""},
    };
    // clang-format on
    for (const fault_case& c : cases) {
        SCOPED_TRACE(c.name);
        reset_neighbour_state();
        testutil::reset_sandbox();
        testutil::install_fake_script();
        neighbours().ft_enabled_vaps = c.vaps;
        if (c.deletion) {
            send_event(first, KH_ADDITION);
            send_event(second, KH_ADDITION);
        }
        dorvfault::handle h = dorvfault::arm(c.rule);
        send_event(first, c.deletion ? AP_DELETION : KH_ADDITION);
        EXPECT_GE(dorvfault::fired(h), 1u);
        for (const std::string& line : c.logs)
            EXPECT_EQ(log_count(line), 1) << line;
        EXPECT_EQ(file_text(kh), c.kh);
        EXPECT_EQ(file_text(ap2), c.ap2);
        EXPECT_EQ(file_text(kc), c.kc);
        EXPECT_FALSE(exists(at(kh_tmp)) || exists(at(ap2_tmp))) << "a temporary file was left";
        EXPECT_EQ(neighbours().files_stale.load(), c.stale);
        EXPECT_EQ(script_runs(), c.scripts);

        if (!c.retry_log.empty()) {
            const int before = log_count(c.retry_log);
            kh_files_retry();
            EXPECT_EQ(log_count(c.retry_log), before + 1) << c.retry_log;
            EXPECT_TRUE(neighbours().files_stale);
            EXPECT_EQ(file_text(kh), c.kh);
            EXPECT_EQ(file_text(ap2), c.ap2);
            EXPECT_FALSE(exists(at(kh_tmp)) || exists(at(ap2_tmp)));
        }
        dorvfault::disarm(h);
        kh_files_retry();
        EXPECT_FALSE(neighbours().files_stale);
        EXPECT_EQ(log_count("[dorvand] Key-holder files written again from the list\n"), c.stale ? 1 : 0);
        EXPECT_EQ(script_runs(), c.scripts + (c.stale ? 1 : 0));
        if (c.stale) {
            EXPECT_EQ(file_text(kh), c.deletion ? rec2 : rec1);
            EXPECT_EQ(file_text(ap2), c.deletion ? vap0_second : c.vaps == 3 ? vap0_first + vap1_first : vap0_first);
        }
        EXPECT_EQ(file_text(kc), c.kc) << "the retry writes no key-change notes";
        EXPECT_FALSE(exists(at(kh_tmp)) || exists(at(ap2_tmp)));
    }
}

// Turning 802.11r off for a VAP drops its line; when that rewrite fails, the
// retry drops it.
TEST_F(kh_files_faults_test, FailedRemovalOfAVapLineIsCaughtUp)
{
    neighbours().ft_enabled_vaps = 3;
    send_event(first, KH_ADDITION);
    traverse_kh_list();
    ASSERT_EQ(file_text(ap2), vap0_first + vap1_first);
    neighbours().ft_enabled_vaps = 2;
    dorvfault::handle h = dorvfault::arm("open path=*/tmp/tmp_ap2_macaddr.txt errno=ENOSPC");
    key_holders_ft_status_changed(0, 0, 0);
    EXPECT_EQ(dorvfault::fired(h), 1u);
    EXPECT_EQ(log_count("[dorvand] \n Failed to open the TMP AP2MAC file \"(" + at(ap2_tmp) +
                        ")\"  [ Reason = No space left on device(28)]"),
              1);
    EXPECT_EQ(file_text(ap2), vap0_first + vap1_first);
    EXPECT_EQ(file_text(kc), added + "ft_key_changed_wifi0vap1=1,1\nft_key_changed_wifi0vap0=1,0\n");
    kh_files_retry();
    EXPECT_EQ(file_text(ap2), vap1_first);
    EXPECT_EQ(script_runs(), 2);

    // Without the file nothing is removed, and there is nothing to write again.
    ASSERT_EQ(unlink(at(ap2).c_str()), 0);
    neighbours().ft_enabled_vaps = 0;
    key_holders_ft_status_changed(0, 1, 0);
    EXPECT_EQ(log_count(failed_open("AP2MAC", ap2, "No such file or directory(2)")), 1);
    EXPECT_FALSE(neighbours().files_stale);
    EXPECT_FALSE(exists(at(ap2)));

    // Switched on again while the key-change file cannot be opened: its line
    // comes with the retry.
    neighbours().ft_enabled_vaps = 2;
    h = dorvfault::arm("open path=*/tmp/ft_key_changed.txt errno=EACCES");
    key_holders_ft_status_changed(0, 1, 1);
    EXPECT_EQ(log_count(failed_open("KEY CHANGE", kc, "Permission denied(13)")), 1);
    EXPECT_FALSE(exists(at(ap2)));
    dorvfault::disarm(h);
    kh_files_retry();
    EXPECT_EQ(file_text(ap2), vap1_first);
}

// A torn record at the end (a write cut by a power loss) is cut off before
// the next append, so the file stays whole records.
TEST_F(kh_files_faults_test, TornRecordIsTrimmedBeforeTheAppend)
{
    testutil::write_file(at(kh), record(0x5E) + "TORN", 0644);
    send_event(first, KH_ADDITION);
    EXPECT_EQ(file_text(kh), record(0x5E) + record(0x4E));
    EXPECT_FALSE(neighbours().files_stale);
}

// An update inside another (a test standing for one in progress) changes
// the files at once but runs the script only when the outer one ends.
TEST_F(kh_files_faults_test, NestedUpdateRunsTheScriptAtTheOuterEnd)
{
    {
        kh_update outer;
        send_event(first, KH_ADDITION);
        EXPECT_EQ(file_text(kh), record(0x4E));
        EXPECT_EQ(script_runs(), 0);
    }
    EXPECT_EQ(script_runs(), 1);
}

}  // namespace
