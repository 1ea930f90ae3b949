// The module's state record and the key-holder list: derivation of a
// neighbour's key-holder MAC, the list itself, the two ways new key holders
// reach it from this module (scan matches and the reload of the key-holder
// file), and the locks the exit clean-up takes.
#include <cstring>
#include <memory>
#include <new>

#include "base/files.h"
#include "base/log.h"
#include "board/board.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

neighbour_state& neighbours()
{
    static neighbour_state state;
    return state;
}

std::atomic<uint32_t>& ft_enabled_vaps()
{
    return neighbours().ft_enabled_vaps;
}

namespace {

constexpr const char* derive_who = "add_to_kh_list";

bool in_5g_high_range(uint8_t channel)
{
    return channel >= 100 && channel <= 173;
}

// Changes only the last byte (modulo 256, no carry into mac[4]). Family
// codes other than TRV and TRM derive nothing.
void derive_key_holder_mac(kh_candidate& c, int radio)
{
    if (c.family != FAMILY_TRV && c.family != FAMILY_TRM)
        return;
    const bool trv = c.family == FAMILY_TRV;
    const nb::vap_offsets off = nb::offsets_for(c.family);
    uint8_t& last = c.mac[5];
    if ((c.ap_type == 1 || c.ap_type == 6) && in_5g_high_range(c.channel)) {
        log_msg(0, log_lvl::info,
                trv ? "%s: mac addr calculation for DBDR and TBTR APs\n"
                    : "%s: mac addr calculation for DBDR APs and TBTR APs\n",
                derive_who);
        last = static_cast<uint8_t>(last - 1);
    } else if (c.ap_type == 4 && in_5g_high_range(c.channel) && radio == 1) {
        log_msg(0, log_lvl::info, "%s: mac addr calculation for DBTR APs\n", derive_who);
        last = static_cast<uint8_t>(last - (trv ? 0x11 : 0x21));
    } else {
        last = static_cast<uint8_t>(last + off.eth_offset - off.wlan_diff * radio);
    }
}

void log_mac_dashes(const uint8_t m[6], const char* active, const char* family)
{
    log_msg(0, log_lvl::info, "%02x-%02x-%02x-%02x-%02x-%02x | %s | %s \n", m[0], m[1], m[2], m[3], m[4], m[5], active,
            family);
}

}  // namespace

void dlist_init(kh_entry* head)
{
    head->next = head;
    head->prev = head;
}

namespace {

void dlist_insert_after(kh_entry* pos, kh_entry* node)
{
    node->prev = pos;
    node->next = pos->next;
    pos->next->prev = node;
    pos->next = node;
}

}  // namespace

void dlist_append(kh_entry* head, kh_entry* node)
{
    dlist_insert_after(head->prev, node);
}

void dlist_unlink(kh_entry* node)
{
    node->prev->next = node->next;
    node->next->prev = node->prev;
    node->next = nullptr;
    node->prev = nullptr;
}

bool dlist_is_empty(const kh_entry* head)
{
    return head->next == head;
}

namespace {

bool is_new_key_holder(const uint8_t mac[6])
{
    for (const kh_entry* e = neighbours().kh_list.next; e != &neighbours().kh_list; e = e->next) {
        log_msg(0, log_lvl::info,
                "[dorvand] mac and ptr1 mac: %02x-%02x-%02x-%02x-%02x-%02x,%02x-%02x-%02x-%02x-%02x-%02x \n", mac[0],
                mac[1], mac[2], mac[3], mac[4], mac[5], e->mac[0], e->mac[1], e->mac[2], e->mac[3], e->mac[4],
                e->mac[5]);
        if (std::memcmp(e->mac, mac, 6) == 0)
            return false;
    }
    return true;
}

}  // namespace

// A radio outside 0..2 is refused before anything changes; so is a new entry
// when memory runs out (the changed flag then stays as it was, so no script
// runs for a key holder that was never recorded).
void add_to_kh_list(kh_candidate* candidate, int radio, uint8_t* changed, int mode)
{
    kh_candidate& c = *candidate;
    if (c.ap_type != 0)
        log_msg(0, log_lvl::info, " Scanned known AP: %02x:%02x:%02x:%02x:%02x:%02x | Channel: %u | VX AP type: %u\n",
                c.mac[0], c.mac[1], c.mac[2], c.mac[3], c.mac[4], c.mac[5], c.channel, c.ap_type);
    // GCOVR_EXCL_START: events, scans and the reload pass radios of the board
    if (radio < 0 || radio > 2) {
        log_msg(0, log_lvl::error, "[dorvand] Key holder refused: no radio wlan%d\n", radio);
        return;
    }
    // GCOVR_EXCL_STOP
    if (mode == KH_MODE_DERIVE)
        derive_key_holder_mac(c, radio);
    if (!is_new_key_holder(c.mac))
        return;
    std::unique_ptr<kh_entry> entry(new (std::nothrow) kh_entry{});
    // GCOVR_EXCL_START: only when memory is exhausted
    if (!entry) {
        log_msg(0, log_lvl::error, "[dorvand] No memory for key holder %02x:%02x:%02x:%02x:%02x:%02x\n", c.mac[0],
                c.mac[1], c.mac[2], c.mac[3], c.mac[4], c.mac[5]);
        return;
    }
    // GCOVR_EXCL_STOP
    *changed = 1;
    std::memcpy(entry->mac, c.mac, 6);
    entry->active = c.active;
    entry->family = c.family;
    key_change_on_addition(c);
    dlist_append(&neighbours().kh_list, entry.release());
}

void traverse_kh_list()
{
    neighbours().kh_list_nonempty = dlist_is_empty(&neighbours().kh_list) ? 0 : 1;
    log_msg(0, log_lvl::info, "########## LIST TRAVERSAL ##############\n");
    log_msg(0, log_lvl::info, "\t MAC \t\t ACTIVE\tFAMILY\n");
    for (const kh_entry* e = neighbours().kh_list.next; e != &neighbours().kh_list; e = e->next)
        log_mac_dashes(e->mac, e->active ? "YES" : "NO", e->family ? "TRM" : "TRV");
}

void match_known_aps(const scan_ap_record* records, int count, int radio)
{
    uint8_t changed = 0;
    for (int i = 0; i < count; ++i) {
        std::unique_ptr<known_ap_entry> known = find_known_ap(records, radio, i);
        if (!known)
            continue;
        const uint8_t* m = known->mac;
        log_msg(0, log_lvl::info, "[dorvand] %02x-%02x-%02x-%02x-%02x-%02x %s  \n", m[0], m[1], m[2], m[3], m[4], m[5],
                known->family ? "TRM" : "TRV");
        kh_candidate c{};
        std::memcpy(c.mac, known->mac, 6);
        c.active = known->present;
        c.family = known->family;
        c.channel = known->channel;
        c.ap_type = known->ap_type;
        add_to_kh_list(&c, radio, &changed, KH_MODE_DERIVE);
        write_key_holders("a");
    }
    if (changed)
        run_ft_script();
}

namespace {

void print_scan_list(int count, const scan_ap_record* records)
{
    for (int i = 0; i < count; ++i) {
        const uint8_t* b = records[i].bssid;
        log_msg(0, log_lvl::info, " %d | %02x:%02x:%02x:%02x:%02x:%02x", i + 1, b[0], b[1], b[2], b[3], b[4], b[5]);
    }
}

// Adds every whole record of `in`; true when that changed the list.
bool add_stored_key_holders(byte_source& in)
{
    uint8_t changed = 0;
    nb::key_holder_record rec{};
    while (nb::read_record(in, rec)) {
        const uint8_t* m = rec.mac;
        log_msg(0, log_lvl::info, "%02x:%02x:%02x:%02x:%02x:%02x %s | %s \n", m[0], m[1], m[2], m[3], m[4], m[5],
                rec.active ? "PRESENT" : "NOT PRESENT", rec.family ? "TRM" : "TRV");
        kh_candidate c{};
        std::memcpy(c.mac, rec.mac, 6);
        c.active = rec.active;
        c.family = rec.family;
        for (int radio = 0; radio < board().radio_count && radio < 3; ++radio)
            add_to_kh_list(&c, radio, &changed, KH_MODE_STORED);
    }
    return changed != 0;
}

void finish_reload(bool changed)
{
    if (changed)
        run_ft_script();
    traverse_kh_list();
}

}  // namespace

void key_holders_from_scan(const scan_ap_record* records, int count, int radio)
{
    kh_update update;
    print_scan_list(count, records);
    match_known_aps(records, count, radio);
    traverse_kh_list();
    write_key_holders("a");
}

void reload_key_holders()
{
    kh_update update;
    bool changed = false;
    if (file_ptr f = open_owned_file(paths::key_holders, "r")) {
        byte_source in(f.get());
        changed = add_stored_key_holders(in);
    }
    finish_reload(changed);
}

void reload_key_holders_from(const uint8_t* data, size_t size)
{
    byte_source in(data, size);
    finish_reload(add_stored_key_holders(in));
}

void init_kh_list()
{
    dlist_init(&neighbours().kh_list);
}

neighbour_exit_locks lock_neighbours_for_exit(std::chrono::seconds wait)
{
    neighbour_exit_locks held{};
    held.key_holders = neighbours().kh_lock.try_lock_for(wait);
    held.tables = neighbours().ht_mutex.try_lock_for(wait);
    return held;
}

void free_kh_list()
{
    kh_entry* e = neighbours().kh_list.next;
    while (e != &neighbours().kh_list) {
        kh_entry* next = e->next;
        log_msg(0, log_lvl::debug, "Removing %02x:%02x:%02x:%02x:%02x:%02x\n", e->mac[0], e->mac[1], e->mac[2],
                e->mac[3], e->mac[4], e->mac[5]);
        dlist_unlink(e);
        delete e;
        e = next;
    }
}
