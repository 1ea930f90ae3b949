// The event-socket thread and the event-loop thread's scan matching working
// on the key-holder list and files at the same time (meant for the
// ThreadSanitizer build as much as for the end state it checks).
#include <algorithm>
#include <atomic>
#include <latch>
#include <mutex>
#include <set>
#include <thread>

#include "nb_fixture.h"

namespace {

class ConcurrencyTest : public neighbours_test {};

mac_t neighbour_mac(int i, uint8_t last)
{
    return {0x0A, 0x1B, 0x2C, static_cast<uint8_t>(0x30 + i), 0x4E, last};
}

TEST_F(ConcurrencyTest, EventsAndScanMatchingKeepListAndFileConsistent)
{
    board().radio_count = 2;
    neighbours().ft_enabled_vaps = 1;
    std::latch start(2);
    std::atomic<bool> events_done{false};
    // The event-socket thread: neighbours come, get key holders on both
    // radios, and some leave again; the last round leaves every neighbour
    // with its radio-0 key holder.
    std::thread events([&] {
        start.arrive_and_wait();
        for (int round = 0; round < 4; ++round) {
            for (int i = 0; i < 4; ++i) {
                send_event(neighbour_mac(i, 0x50), AP_ADDITION);
                send_event(neighbour_mac(i, 0x50), KH_ADDITION, 0, static_cast<uint8_t>(round % 2));
                if ((round + i) % 2 == 0)
                    send_event(neighbour_mac(i, 0x50), AP_DELETION);
            }
        }
        for (int i = 0; i < 4; ++i)
            send_event(neighbour_mac(i, 0x50), KH_ADDITION);
        events_done = true;
    });
    // This thread does what scan processing does for each channel report of
    // radio 0, for as long as events arrive, then walks the list's links
    // without logging under the same lock. The silent walk matters for the
    // sanitizer: every logged line passes the log's own lock, which would
    // order most unlocked accesses by accident and hide a missing kh_lock.
    scan_ap_record records[4] = {};
    for (int i = 0; i < 4; ++i) {
        const mac_t bssid = neighbour_mac(i, 0x52);
        std::copy(bssid.begin(), bssid.end(), records[i].bssid);
        records[i].channel = 6;
    }
    int torn = 0;
    start.arrive_and_wait();
    for (int round = 0; round < 4 || !events_done.load(); ++round) {
        std::lock_guard<std::timed_mutex> hold(neighbours().kh_lock);
        match_known_aps(records, 4, 0);
        traverse_kh_list();
        write_key_holders("a");
        const kh_entry* head = &neighbours().kh_list;
        for (const kh_entry* e = head->next; e != head; e = e->next)
            torn += e->next && e->next->prev == e ? 0 : 1;
        torn += head->prev->next == head ? 0 : 1;
    }
    events.join();
    EXPECT_EQ(torn, 0) << "list links seen inconsistent under kh_lock";

    std::vector<mac_t> in_list = list_macs();
    std::vector<mac_t> in_file = file_macs();
    std::set<mac_t> list_set(in_list.begin(), in_list.end());
    std::set<mac_t> file_set(in_file.begin(), in_file.end());
    EXPECT_EQ(list_set.size(), in_list.size()) << "duplicate key holders in the list";
    EXPECT_EQ(file_set.size(), in_file.size()) << "duplicate records in the file";
    EXPECT_EQ(file_set, list_set);
    EXPECT_EQ(testutil::read_bytes(testutil::at("/var/roam_key_holders")).size() % 16, 0u);
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(list_set.count(neighbour_mac(i, 0x5F))) << "key holder of neighbour " << i << " missing";
}

}  // namespace
