// The per-radio known-AP tables: a fixed array of slot heads, each slot a
// chain of entries in insertion order, all guarded by ht_mutex.
#include <array>
#include <cstring>
#include <mutex>
#include <new>

#include "base/log.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

// The slot of a MAC is one nibble, so only slots 0..15 of the 256 heads ever
// hold entries; walks and teardown visit just those.
struct known_ap_table {
    std::array<known_ap_entry*, 256> slots{};
};

namespace {

constexpr int used_slots = 16;

int slot_of(const uint8_t mac[6])
{
    return (mac[5] >> 4) & 0x0F;
}

bool same_mac(const uint8_t a[6], const uint8_t b[6])
{
    return std::memcmp(a, b, 6) == 0;
}

known_ap_entry* new_known_ap_entry(const uint8_t mac[6], uint8_t present, uint8_t family, uint8_t channel,
                                   uint8_t ap_type)
{
    auto* entry = new (std::nothrow) known_ap_entry{};
    // GCOVR_EXCL_START: only when memory is exhausted
    if (!entry)
        return nullptr;
    // GCOVR_EXCL_STOP
    std::memcpy(entry->mac, mac, 6);
    entry->present = present;
    entry->family = family;
    entry->channel = channel;
    entry->ap_type = ap_type;
    entry->next = nullptr;
    return entry;
}

void log_locked(const char* who)
{
    log_msg(0, log_lvl::debug, "mutex locked [%s] \n", who);
}

void unlock_and_log(std::unique_lock<std::timed_mutex>& hold, const char* who)
{
    hold.unlock();
    log_msg(0, log_lvl::debug, "mutex unlocked [%s] \n", who);
}

bool refuse_missing(const known_ap_table* table, const char* who)
{
    // GCOVR_EXCL_START: callers pass the table of a radio that has one
    if (table)
        return false;
    log_msg(0, log_lvl::error, "[dorvand] %s: no known-AP table\n", who);
    return true;
    // GCOVR_EXCL_STOP
}

void print_slot(const known_ap_entry* head, int slot)
{
    log_msg(0, log_lvl::info, "\t*** slot = %d ***\n", slot);
    for (const known_ap_entry* e = head; e; e = e->next)
        log_msg(0, log_lvl::info, "%02x:%02x:%02x:%02x:%02x:%02x present = %s | family = %s \n", e->mac[0], e->mac[1],
                e->mac[2], e->mac[3], e->mac[4], e->mac[5], e->present ? "Yes" : "No", e->family ? "TRM" : "TRV");
}

}  // namespace

known_ap_table* create_hash_table()
{
    return new (std::nothrow) known_ap_table{};
}

void free_known_ap_table(known_ap_table* table)
{
    if (!table)
        return;
    for (int slot = 0; slot < used_slots; ++slot) {
        known_ap_entry* e = table->slots[slot];
        while (e) {
            known_ap_entry* next = e->next;
            delete e;
            e = next;
        }
        table->slots[slot] = nullptr;
    }
    delete table;
}

bool create_known_ap_table(int radio)
{
    // GCOVR_EXCL_START: start-up passes the radios of the board
    if (radio < 0 || radio > 2)
        return false;
    // GCOVR_EXCL_STOP
    known_ap_table*& table = neighbours().known_ap_tables[radio];
    if (!table)
        table = create_hash_table();
    return table != nullptr;
}

void free_known_ap_tables()
{
    for (known_ap_table*& table : neighbours().known_ap_tables) {
        free_known_ap_table(table);
        table = nullptr;
    }
}

void add_to_ht(known_ap_table* table, const uint8_t mac[6], uint8_t present, uint8_t family, uint8_t channel,
               uint8_t ap_type)
{
    static constexpr const char* who = "add_to_ht";
    // GCOVR_EXCL_START: callers pass the table of a radio that has one
    if (refuse_missing(table, who))
        return;
    // GCOVR_EXCL_STOP
    std::unique_lock<std::timed_mutex> hold(neighbours().ht_mutex);
    log_locked(who);
    int slot = slot_of(mac);
    known_ap_entry*& head = table->slots[slot];
    if (!head) {
        log_msg(0, log_lvl::debug, " slot %d new entry \n", slot);
        head = new_known_ap_entry(mac, present, family, channel, ap_type);
        unlock_and_log(hold, who);
        return;
    }
    if (same_mac(head->mac, mac)) {
        log_msg(0, log_lvl::debug, "Duplicate entry at beginning %hhX-%hhX-%hhX-%hhX-%hhX-%hhX \n", mac[0], mac[1],
                mac[2], mac[3], mac[4], mac[5]);
        unlock_and_log(hold, who);
        return;
    }
    known_ap_entry* last = head;
    for (known_ap_entry* e = head->next; e; e = e->next) {
        if (same_mac(e->mac, mac)) {
            log_msg(0, log_lvl::debug, "Duplicate entry at traversal %hhX-%hhX-%hhX-%hhX-%hhX-%hhX \n", mac[0], mac[1],
                    mac[2], mac[3], mac[4], mac[5]);
            unlock_and_log(hold, who);
            return;
        }
        last = e;
    }
    log_msg(0, log_lvl::debug, "New entry , but in same hash slot [%d]\t\t\t\t\n", slot);
    last->next = new_known_ap_entry(mac, present, family, channel, ap_type);
    unlock_and_log(hold, who);
}

void del_from_ht(known_ap_table* table, const uint8_t mac[6])
{
    static constexpr const char* who = "del_from_ht";
    // GCOVR_EXCL_START: callers pass the table of a radio that has one
    if (refuse_missing(table, who))
        return;
    // GCOVR_EXCL_STOP
    std::unique_lock<std::timed_mutex> hold(neighbours().ht_mutex);
    log_locked(who);
    int slot = slot_of(mac);
    known_ap_entry*& head = table->slots[slot];
    if (!head) {
        log_msg(0, log_lvl::debug, "%02x:%02x:%02x:%02x:%02x:%02xis not found \n", mac[0], mac[1], mac[2], mac[3],
                mac[4], mac[5]);
    } else if (same_mac(head->mac, mac)) {
        log_msg(0, log_lvl::debug, "mac found @ beginning of %d slot \n", slot);
        known_ap_entry* old = head;
        head = old->next;
        delete old;
    } else {
        for (known_ap_entry* prev = head; prev->next; prev = prev->next) {
            known_ap_entry* e = prev->next;
            if (same_mac(e->mac, mac)) {
                log_msg(0, log_lvl::debug, "mac found during traversal of %d slot \n", slot);
                prev->next = e->next;
                delete e;
                break;
            }
        }
    }
    unlock_and_log(hold, who);
}

void traverse_hash_table(known_ap_table* table, const char* name)
{
    static constexpr const char* who = "traverse_hash_table";
    std::unique_lock<std::timed_mutex> hold(neighbours().ht_mutex);
    log_locked(who);
    // GCOVR_EXCL_START: callers pass the table of a radio that has one
    if (!table) {
        log_msg(0, log_lvl::info, "hash table is empty for %s \n", name);
    } else {
        // GCOVR_EXCL_STOP
        log_msg(0, log_lvl::info, "###############################\n");
        log_msg(0, log_lvl::info, "\t\thash table for %s \n", name);
        for (int slot = 0; slot < used_slots; ++slot) {
            if (table->slots[slot])
                print_slot(table->slots[slot], slot);
        }
    }
    unlock_and_log(hold, who);
}

std::unique_ptr<known_ap_entry> find_known_ap(const scan_ap_record* records, int radio, int i)
{
    const scan_ap_record& rec = records[i];
    int slot = slot_of(rec.bssid);
    std::lock_guard<std::timed_mutex> hold(neighbours().ht_mutex);
    known_ap_table* table = radio >= 0 && radio < 3 ? neighbours().known_ap_tables[radio] : nullptr;
    // GCOVR_EXCL_START: scans run only on radios that have a table
    if (!table) {
        log_msg(1, log_lvl::error, "[dorvand] ht for wlan%d is not created\t\t\t\t\n", radio);
        return nullptr;
    }
    // GCOVR_EXCL_STOP
    // Entries of one slot share the high nibble of the last byte, so agreeing
    // in the first five bytes here means agreeing in all but the low nibble.
    known_ap_entry* head = table->slots[slot];
    for (known_ap_entry* e = head; e; e = e->next) {
        if (std::memcmp(e->mac, rec.bssid, 5) != 0)
            continue;
        if (e == head)
            log_msg(0, log_lvl::debug, "Found @ beginning of %d slot \n", slot);
        else
            log_msg(0, log_lvl::debug, "Found @ traversal of %d\t\t\t\t\t\t\t\tslot \n", slot);
        e->channel = rec.channel;
        e->ap_type = rec.ap_type;
        std::unique_ptr<known_ap_entry> copy(new (std::nothrow) known_ap_entry(*e));
        // GCOVR_EXCL_START: only when memory is exhausted
        if (copy)
            // GCOVR_EXCL_STOP
            copy->next = nullptr;
        return copy;
    }
    return nullptr;
}
