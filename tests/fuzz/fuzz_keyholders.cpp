// The key-holder file /var/roam_key_holders, reloaded into the key-holder
// list as the 802.11r refresh does (with the files it writes in scratch).
//
// Input: byte 0 the board (bit 0: three radios), the rest the file. No VAP
// has 802.11r enabled: the BSSID lines that brings are the event and
// ap2_macaddr targets' part, and would only slow this one down.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "board/board.h"
#include "fuzz_support.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

namespace {

constexpr size_t max_records = 8;

bool listed(const uint8_t mac[6])
{
    const kh_entry* head = &neighbours().kh_list;
    for (const kh_entry* e = head->next; e != head; e = e->next)
        if (std::memcmp(e->mac, mac, 6) == 0)
            return true;
    return false;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::enter_scratch();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1 || size - 1 > max_records * sizeof(nb::key_holder_record))
        return 0;
    board().radio_count = (data[0] & 1) ? 3 : 2;
    reload_key_holders_from(data + 1, size - 1);

    // Stored MACs are taken as they are: each whole record's MAC is listed,
    // once, and the list holds nothing else.
    size_t records = (size - 1) / sizeof(nb::key_holder_record);
    size_t entries = 0;
    const kh_entry* head = &neighbours().kh_list;
    for (const kh_entry* e = head->next; e != head; e = e->next, ++entries)
        for (const kh_entry* f = e->next; f != head; f = f->next)
            fuzz::check(std::memcmp(e->mac, f->mac, 6) != 0, "key holder listed twice");
    for (size_t i = 0; i < records; ++i)
        fuzz::check(listed(data + 1 + i * sizeof(nb::key_holder_record) + offsetof(nb::key_holder_record, mac)),
                    "stored key holder missing from the list");
    fuzz::check(entries <= records, "key holder listed that no record holds");
    fuzz::check(neighbours().kh_list_nonempty == (entries > 0 ? 1 : 0), "list state flag out of step");
    fuzz::reset_neighbours();
    return 0;
}
