// The neighbour event datagram: a run of datagrams decoded and applied to
// the known-AP tables the way the event-socket thread applies additions and
// deletions; afterwards every MAC they named finds exactly what is left.
// (The key-holder half of an event writes files and runs the transition
// script; that is the end-to-end tests' part.)
//
// Input: byte 0 the board (bit 0: three radios), then datagrams, each a
// length byte (its low four bits: 0..15) and that many bytes.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <set>

#include "board/board.h"
#include "fuzz_support.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

namespace {

// Enough for additions and deletions to meet in one slot; each event's
// table walk is logged, so more would mostly time the log formatting.
constexpr int max_events = 16;
using mac_bytes = std::array<uint8_t, 6>;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    board().radio_count = (data[0] & 1) ? 3 : 2;
    fuzz::fresh_tables(board().radio_count);
    // What each radio's table must hold afterwards, and every MAC an event
    // named for it.
    std::set<mac_bytes> model[3];
    std::set<mac_bytes> named[3];
    size_t pos = 1;
    for (int n = 0; n < max_events && pos < size; ++n) {
        size_t len = data[pos++] & 0x0F;
        if (len > size - pos)
            len = size - pos;
        const neighbour_event ev = decode_neighbour_event(data + pos, len);
        uint8_t bytes[sizeof ev];
        std::memcpy(bytes, &ev, sizeof ev);
        for (size_t i = 0; i < sizeof ev; ++i)
            fuzz::check(bytes[i] == (i < len ? data[pos + i] : 0), "datagram decoded wrongly");
        pos += len;
        if (ev.wlan >= board().radio_count)
            continue;
        known_ap_table* table = neighbours().known_ap_tables[ev.wlan];
        mac_bytes mac;
        std::memcpy(mac.data(), ev.mac, mac.size());
        named[ev.wlan].insert(mac);
        if (ev.type == AP_ADDITION) {
            add_to_ht(table, ev.mac, ev.type, ev.family, ev.wlan, 0);
            model[ev.wlan].insert(mac);
        } else if (ev.type == AP_DELETION) {
            del_from_ht(table, ev.mac);
            model[ev.wlan].erase(mac);
        }
        traverse_hash_table(table, "wlan");
    }
    // Every named MAC, scanned as a BSSID, finds an AP added and not deleted
    // since; and nothing when no such AP shares its first five bytes and the
    // high nibble of its last.
    for (int r = 0; r < board().radio_count; ++r) {
        for (const mac_bytes& mac : named[r]) {
            scan_ap_record rec{};
            std::memcpy(rec.bssid, mac.data(), mac.size());
            const std::unique_ptr<known_ap_entry> found = find_known_ap(&rec, r, 0);
            bool matching = false;
            for (const mac_bytes& kept : model[r])
                matching = matching || (std::memcmp(kept.data(), mac.data(), 5) == 0 && kept[5] >> 4 == mac[5] >> 4);
            fuzz::check(found || !matching, "added known AP not found");
            mac_bytes found_mac{};
            if (found)
                std::memcpy(found_mac.data(), found->mac, found_mac.size());
            fuzz::check(!found || model[r].count(found_mac) == 1, "deleted known AP still found");
        }
    }
    fuzz::fresh_tables(0);
    return 0;
}
