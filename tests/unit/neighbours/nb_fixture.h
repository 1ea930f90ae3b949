// Fixture and helpers shared by the neighbour module's tests: fresh tables
// for three radios, an empty key-holder list and the fake transition script.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "board/board.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"
#include "test_util.h"

using mac_t = std::array<uint8_t, 6>;

inline void reset_neighbour_state()
{
    free_kh_list();
    dlist_init(&neighbours().kh_list);
    neighbours().kh_list_nonempty = 0;
    for (auto& table : neighbours().known_ap_tables) {
        free_known_ap_table(table);
        table = nullptr;
    }
    board().radio_count = 3;
    for (int r = 0; r < 3; ++r)
        neighbours().known_ap_tables[r] = create_hash_table();
    neighbours().ft_enabled_vaps = 0;
    neighbours().files_stale = false;
}

class neighbours_test : public sandbox_test {
  protected:
    void SetUp() override
    {
        reset_neighbour_state();
        sandbox_test::SetUp();
        testutil::install_fake_script();
    }
    void TearDown() override { reset_neighbour_state(); }
};

// One 9-byte neighbour event, handled as the event-socket thread would.
inline void send_event(const mac_t& mac, uint8_t type, uint8_t family = 0, uint8_t wlan = 0)
{
    uint8_t buf[9] = {mac[0], mac[1], mac[2], mac[3], mac[4], mac[5], type, family, wlan};
    handle_neighbour_event(buf, sizeof buf);
}

// The MACs of the key-holder list, in list order.
inline std::vector<mac_t> list_macs()
{
    std::vector<mac_t> out;
    for (const kh_entry* e = neighbours().kh_list.next; e != &neighbours().kh_list; e = e->next)
        out.push_back({e->mac[0], e->mac[1], e->mac[2], e->mac[3], e->mac[4], e->mac[5]});
    return out;
}

inline void append_key_holder(const mac_t& mac, uint8_t active, uint8_t family)
{
    auto* e = new kh_entry{};
    std::copy(mac.begin(), mac.end(), e->mac);
    e->active = active;
    e->family = family;
    dlist_append(&neighbours().kh_list, e);
}

// The 16-byte file image of one key holder, link words zero.
inline std::vector<unsigned char> record_of(const mac_t& mac, uint8_t active, uint8_t family)
{
    std::vector<unsigned char> r(16, 0);
    for (size_t i = 0; i < mac.size(); ++i)
        r[8 + i] = mac[i];
    r[14] = active;
    r[15] = family;
    return r;
}

// The text of the file at fixed path `fixed`; nullopt when there is none.
inline std::optional<std::string> file_text(const char* fixed)
{
    const std::string path = testutil::at(fixed);
    return testutil::exists(path) ? std::optional<std::string>(testutil::read_file(path)) : std::nullopt;
}

// The MACs of the whole records of /var/roam_key_holders.
inline std::vector<mac_t> file_macs()
{
    std::vector<unsigned char> bytes = testutil::read_bytes(testutil::at("/var/roam_key_holders"));
    std::vector<mac_t> out;
    for (size_t off = 0; off + 16 <= bytes.size(); off += 16) {
        mac_t m;
        std::copy(bytes.begin() + static_cast<long>(off) + 8, bytes.begin() + static_cast<long>(off) + 14, m.begin());
        out.push_back(m);
    }
    return out;
}

// The messages logged after byte `from` of the log file, one per log line,
// without the time stamp and level and without a trailing newline.
inline std::vector<std::string> log_messages(size_t from = 0)
{
    std::istringstream in(testutil::log_text().substr(from));
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) {
        size_t mark = line.find("] : ");
        if (line.rfind("[", 0) == 0 && mark != std::string::npos)
            out.push_back(line.substr(mark + 4));
    }
    return out;
}

inline size_t log_size()
{
    return testutil::log_text().size();
}

// The entry lines that traverse_hash_table prints for a table, in order.
inline std::vector<std::string> table_rows(int radio)
{
    size_t from = log_size();
    static const char* names[3] = {"wlan0", "wlan1", "wlan2"};
    traverse_hash_table(neighbours().known_ap_tables[radio], names[radio]);
    std::vector<std::string> rows;
    for (const std::string& m : log_messages(from)) {
        if (m.find("present =") != std::string::npos)
            rows.push_back(m);
    }
    return rows;
}
