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
#include "board/board.h"
#include "neighbours/neighbours.h"

namespace {

class ConcurrencyTest : public neighbours_test {};

constexpr int neighbour_count = 4;
constexpr int rounds = 4;

mac_t neighbour_mac(int i)
{
    return {0x0A, 0x1B, 0x2C, static_cast<uint8_t>(0x30 + i), 0x4E, 0x50};
}

// What the event-socket thread sees: neighbours come, get key holders on
// both radios, and some leave again; the last round leaves every neighbour
// with its radio-0 key holder.
void feed_events()
{
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < neighbour_count; ++i) {
            send_event(neighbour_mac(i), AP_ADDITION);
            send_event(neighbour_mac(i), KH_ADDITION, 0, static_cast<uint8_t>(round % 2));
            if ((round + i) % 2 == 0)
                send_event(neighbour_mac(i), AP_DELETION);
        }
    }
    for (int i = 0; i < neighbour_count; ++i)
        send_event(neighbour_mac(i), KH_ADDITION);
}

// Walks the list without logging (as the 802.11r status update does) and
// checks its links; false when a link does not point back.
bool list_links_consistent()
{
    for (const kh_entry* e = neighbours().kh_list.next; e != &neighbours().kh_list; e = e->next) {
        if (!e->next || e->next->prev != e)
            return false;
    }
    return neighbours().kh_list.prev->next == &neighbours().kh_list;
}

// What scan processing does for each channel report of radio 0, followed by
// a silent walk of the list under the same lock. The walk matters for the
// sanitizer: every logged line passes the log's own lock, which would order
// most unlocked accesses by accident and hide a missing kh_lock.
int scan_and_match(const std::atomic<bool>& events_done)
{
    int torn = 0;
    scan_ap_record records[neighbour_count] = {};
    for (int i = 0; i < neighbour_count; ++i) {
        mac_t m = neighbour_mac(i);
        std::copy(m.begin(), m.end(), records[i].bssid);
        records[i].bssid[5] = 0x52;
        records[i].channel = 6;
    }
    // Scans go on for as long as events arrive, so the two really overlap.
    for (int round = 0; round < rounds || !events_done.load(); ++round) {
        std::lock_guard<std::timed_mutex> hold(neighbours().kh_lock);
        match_known_aps(records, neighbour_count, 0);
        traverse_kh_list();
        write_key_holders("a");
        torn += list_links_consistent() ? 0 : 1;
    }
    return torn;
}

TEST_F(ConcurrencyTest, EventsAndScanMatchingKeepListAndFileConsistent)
{
    board().radio_count = 2;
    neighbours().ft_enabled_vaps = 1;
    std::latch start(2);
    std::atomic<bool> events_done{false};
    std::thread events([&] {
        start.arrive_and_wait();
        feed_events();
        events_done = true;
    });
    int torn = 0;
    std::thread scans([&] {
        start.arrive_and_wait();
        torn = scan_and_match(events_done);
    });
    events.join();
    scans.join();
    EXPECT_EQ(torn, 0) << "list links seen inconsistent under kh_lock";

    std::vector<mac_t> in_list = list_macs();
    std::vector<mac_t> in_file = file_macs();
    std::set<mac_t> list_set(in_list.begin(), in_list.end());
    std::set<mac_t> file_set(in_file.begin(), in_file.end());
    EXPECT_EQ(list_set.size(), in_list.size()) << "duplicate key holders in the list";
    EXPECT_EQ(file_set.size(), in_file.size()) << "duplicate records in the file";
    EXPECT_EQ(file_set, list_set);
    EXPECT_EQ(testutil::read_bytes(testutil::at("/var/roam_key_holders")).size() % 16, 0u);
    for (int i = 0; i < neighbour_count; ++i) {
        mac_t kh = neighbour_mac(i);
        kh[5] = 0x5F;
        EXPECT_TRUE(list_set.count(kh)) << "key holder of neighbour " << i << " missing";
    }
}

}  // namespace
