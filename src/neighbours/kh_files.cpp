// The key-holder record file, the key-change notes with the neighbour BSSIDs
// they bring, and the transition script. Callers hold kh_lock, but for the
// whole updates at the end, which take it themselves.
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "base/files.h"
#include "base/log.h"
#include "base/spawn.h"
#include "board/board.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

namespace {

using mac_bytes = std::array<uint8_t, 6>;

// The MACs of every whole record on disk; empty when the file cannot be read.
std::vector<mac_bytes> cached_macs()
{
    std::vector<mac_bytes> macs;
    file_ptr f = open_owned_file(paths::key_holders, "r");
    if (!f)
        return macs;
    nb::key_holder_record rec{};
    while (nb::read_record(f.get(), rec)) {
        mac_bytes m;
        std::memcpy(m.data(), rec.mac, m.size());
        macs.push_back(m);
    }
    return macs;
}

bool contains(const std::vector<mac_bytes>& macs, const uint8_t mac[6])
{
    for (const mac_bytes& m : macs) {
        if (std::memcmp(m.data(), mac, 6) == 0)
            return true;
    }
    return false;
}

void log_write_failure(int err)
{
    log_msg(0, log_lvl::error, "fwrite failed [%d | %s ]\n", err, strerror(err));
}

// Writes the record of every entry that `skip` does not hold; false (with
// the error logged) at the first failed write.
bool write_records(FILE* f, const std::vector<mac_bytes>& skip)
{
    for (const kh_entry* e = neighbours().kh_list.next; e != &neighbours().kh_list; e = e->next) {
        if (contains(skip, e->mac)) {
            log_msg(0, log_lvl::info, "%02x:%02x:%02x:%02x:%02x:%02x is already cached in MKH\n", e->mac[0], e->mac[1],
                    e->mac[2], e->mac[3], e->mac[4], e->mac[5]);
            continue;
        }
        nb::record_bytes bytes = nb::encode_record(*e);
        if (fwrite(bytes.data(), bytes.size(), 1, f) != 1) {
            log_write_failure(errno);
            return false;
        }
    }
    return true;
}

// Mode "a": only entries not yet on disk are appended. A failed append
// leaves the file as it was, whole records only, and the files stale.
bool append_key_holders()
{
    std::vector<mac_bytes> on_disk = cached_macs();
    append_file f;
    if (!f.open(paths::key_holders))
        return false;
    f.trim_to_records(sizeof(nb::key_holder_record));
    if (!write_records(f.get(), on_disk)) {
        f.discard();
        return false;
    }
    if (!f.close()) {
        log_write_failure(errno);
        return false;
    }
    return true;
}

// Mode "w": the whole list goes to a temporary file that replaces the old
// one only when complete, so readers never see a half-written file.
bool rewrite_key_holders()
{
    replace_file f(paths::key_holders_tmp, paths::key_holders);
    if (!f.open())
        return false;
    if (!write_records(f.get(), {}))
        return false;
    if (!f.commit()) {
        log_write_failure(errno);
        return false;
    }
    return true;
}

void mark_stale()
{
    neighbours().files_stale = true;
}

// The key-change notes of one update: appended whole or not at all.
void close_key_change_file(append_file& f)
{
    if (!f.close()) {
        int err = errno;
        log_msg(0, log_lvl::error, "[dorvand] Failed to write %s [%d|%s]; the file is kept as it was\n",
                paths::key_changes, err, strerror(err));
    }
}

bool open_key_change_file(append_file& f, const char* what)
{
    if (f.open(paths::key_changes))
        return true;
    int err = errno;
    log_msg(0, log_lvl::error, "[dorvand] \n Failed to open the %s file \"(%s)\" [ Reason = %s(%d)]", what,
            paths::key_changes, strerror(err), err);
    // The ap2_macaddr lines this change would have made are then missing:
    // the retry writes them from the list.
    mark_stale();
    return false;
}

// Adds the three neighbour BSSIDs of a key holder whose last byte is `last`
// to the ap2_macaddr line of VAP (r, v).
void add_neighbour_bssids(const uint8_t mac[6], uint8_t last, int r, int v, const nb::vap_offsets& off)
{
    char name[16];
    snprintf(name, sizeof name, "wifi%dvap%d", r, v);
    for (int k = 0; k < 3; ++k) {
        std::array<char, 18> text = nb::neighbour_bssid_text(mac, last, k, v, off);
        log_msg(0, log_lvl::info, "%s - %s = %s\n", name, "ap2_macaddr", text.data());
        if (ap2mac_update(name, text.data(), 1) != 0)
            log_msg(1, log_lvl::error, "Failed to add ap2_macaddr to text file \n");
    }
}

thread_local int update_depth = 0;

void log_mac(const char* prefix, const uint8_t m[6])
{
    log_msg(0, log_lvl::info, "%s%02x:%02x:%02x:%02x:%02x:%02x", prefix, m[0], m[1], m[2], m[3], m[4], m[5]);
}

bool vap_enabled(uint32_t mask, int r, int v)
{
    return (mask >> (10 * r + v)) & 1U;
}

}  // namespace

void write_key_holders(const char* mode)
{
    log_msg(0, log_lvl::debug, "mode = %s \n", mode);
    if (std::strcmp(mode, "a") == 0) {
        if (!append_key_holders())
            mark_stale();
    } else if (std::strcmp(mode, "w") == 0) {
        if (!rewrite_key_holders())
            mark_stale();
        // GCOVR_EXCL_START: callers pass "a" or "w"
    } else
        log_msg(0, log_lvl::error, "[dorvand] write_key_holders: unknown mode \"%s\"\n", mode);
    // GCOVR_EXCL_STOP
}

void key_change_on_addition(const kh_candidate& candidate)
{
    const nb::vap_offsets off = nb::offsets_for(candidate.family);
    log_msg(0, log_lvl::info, " ADDITION | family = %d | ethOffset = %X | wlanDiff = %X  | firstVapOffset = %X\n",
            candidate.family, off.eth_offset, off.wlan_diff, off.first_vap_offset);
    log_msg(0, log_lvl::info, "MAC = ");
    log_mac("", candidate.mac);
    append_file f;
    if (!open_key_change_file(f, "KEY_CHANGE"))
        return;
    const uint32_t mask = neighbours().ft_enabled_vaps.load();
    for (int r = 0; r < board().radio_count && r < 3; ++r) {
        for (int v = 0; v < 10; ++v) {
            if (!vap_enabled(mask, r, v))
                continue;
            fprintf(f.get(), "%s_wifi%dvap%d=1,1\n", "ft_key_changed", r, v);
            add_neighbour_bssids(candidate.mac, candidate.mac[5], r, v, off);
        }
    }
    close_key_change_file(f);
}

void key_change_on_deletion(int radio, uint8_t family, uint8_t mac[6])
{
    const nb::vap_offsets off = nb::offsets_for(family);
    log_msg(0, log_lvl::info, "DELETION | family = %d | ethOffset = %X | wlanDiff = %X  | firstVapOffset = %X\n",
            family, off.eth_offset, off.wlan_diff, off.first_vap_offset);
    mac[5] = static_cast<uint8_t>((mac[5] & 0xF0) - static_cast<uint8_t>(radio * off.wlan_diff) + off.eth_offset);
    append_file f;
    if (!open_key_change_file(f, "KEY_CHANGE"))
        return;
    log_mac("MAC ", mac);
    const uint32_t mask = neighbours().ft_enabled_vaps.load();
    for (int r = 0; r < board().radio_count && r < 3; ++r) {
        for (int v = 0; v < 10; ++v) {
            if (!vap_enabled(mask, r, v))
                continue;
            char name[32];  // unoptimised builds see only that r is an int
            snprintf(name, sizeof name, "wifi%dvap%d", r, v);
            fprintf(f.get(), "%s_wifi%dvap%d=1,0\n", "ft_key_changed", r, v);
            for (int k = 0; k < 3; ++k) {
                std::array<char, 18> text = nb::neighbour_bssid_text(mac, mac[5], k, v, off);
                log_msg(0, log_lvl::info,
                        "LSB =%02X | nbr_radIdx = %d | wlanDiff = %02X |  ethOffset = %02X |\t\t\t\t\t\t\t"
                        "firstVapOffset =%02X\n",
                        mac[5], k, off.wlan_diff, off.eth_offset, off.first_vap_offset);
                log_msg(0, log_lvl::info, "wifi%dvap%d - %s = %s\n", r, v, "ap2_macaddr", text.data());
                if (ap2mac_update(name, text.data(), 0) != 0)
                    log_msg(1, log_lvl::error, "Failed to delete ap2_macaddr from text file \n");
            }
        }
    }
    close_key_change_file(f);
}

namespace {

void vap_ft_status_changed(int radio, int vap, const kh_entry& entry, int status)
{
    const nb::vap_offsets off = nb::offsets_for(entry.family);
    log_msg(0, log_lvl::info,
            " wifi%dvap%d | 11rStatus = %s | family = %d | ethOffset = %X | wlanDiff = %X  | firstVapOffset = %X\n",
            radio, vap, status ? "ENABLE" : "DISABLE", entry.family, off.eth_offset, off.wlan_diff,
            off.first_vap_offset);
    log_msg(0, log_lvl::info, "MAC = ");
    log_mac("", entry.mac);
    append_file f;
    if (!open_key_change_file(f, "KEY CHANGE"))
        return;
    fprintf(f.get(), "%s_wifi%dvap%d=1,%d\n", "ft_key_changed", radio, vap, status);
    if (status == 0) {
        char key[32];
        snprintf(key, sizeof key, "%s_wifi%dvap%d", "ap2_macaddr", radio, vap);
        ap2mac_remove_vap(key);
    } else {
        add_neighbour_bssids(entry.mac, entry.mac[5], radio, vap, off);
    }
    close_key_change_file(f);
}

}  // namespace

void run_ft_script()
{
    if (update_depth > 0) {
        neighbours().script_wanted = true;
        return;
    }
    if (shell_run(128, "%s", paths::ft_script) == -1) {
        int err = errno;
        log_msg(0, log_lvl::error, "Failed to run script [%d|%s]\n", err, strerror(err));
    }
}

kh_update::kh_update() : outer_(update_depth == 0)
{
    ++update_depth;
    if (!outer_)
        return;
    neighbours().script_lock.lock();
    neighbours().kh_lock.lock();
    stale_at_start_ = neighbours().files_stale;
}

kh_update::~kh_update()
{
    if (!outer_) {
        --update_depth;
        return;
    }
    // Written again only when the failure came from an earlier update: the
    // one that just failed would fail the same way at once.
    if (stale_at_start_ && neighbours().files_stale) {
        bool ok = rewrite_key_holders();
        ok = ap2mac_rebuild(neighbours().ft_enabled_vaps.load()) == 0 && ok;
        if (ok) {
            neighbours().files_stale = false;
            log_msg(0, log_lvl::error, "[dorvand] Key-holder files written again from the list\n");
            neighbours().script_wanted = true;
        }
    }
    const bool script = std::exchange(neighbours().script_wanted, false);
    neighbours().kh_lock.unlock();
    --update_depth;
    if (script)
        run_ft_script();
    neighbours().script_lock.unlock();
}

void kh_files_retry()
{
    if (neighbours().files_stale)
        kh_update retry;
}

void key_holders_ft_status_changed(int radio, int vap, int status)
{
    kh_update update;
    if (!neighbours().kh_list_nonempty) {
        log_msg(0, log_lvl::info, "List is empty \n");
        return;
    }
    for (kh_entry* e = neighbours().kh_list.next; e != &neighbours().kh_list; e = e->next)
        vap_ft_status_changed(radio, vap, *e, status);
}

void run_ft_script_if_key_holders()
{
    kh_update update;
    if (neighbours().kh_list_nonempty)
        run_ft_script();
}
