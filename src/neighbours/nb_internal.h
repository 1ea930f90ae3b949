// Pieces shared by the neighbour module's source files only: fixed paths,
// the family offsets, the key-holder file record and a bounded line reader.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "neighbours/neighbours.h"
#include "base/files.h"
#include "base/paths.h"

namespace nb {

inline constexpr const char* radio_names[3] = {"wlan0", "wlan1", "wlan2"};

// The per-family constants of the key-holder and BSSID derivations.
struct vap_offsets {
    uint8_t eth_offset;
    uint8_t wlan_diff;
    uint8_t first_vap_offset;
};

constexpr vap_offsets offsets_for(uint8_t family)
{
    return family == FAMILY_TRV ? vap_offsets{0x0F, 0x10, 0} : vap_offsets{0x1F, 0x20, 1};
}

// One record of /var/roam_key_holders. Bytes 0-7 held the list links of the
// writer's in-memory entry on the original 32-bit layout; nothing reads them,
// so they are written as zero.
struct key_holder_record {
    uint8_t links[8];
    uint8_t mac[6];
    uint8_t active;
    uint8_t family;
};
static_assert(sizeof(key_holder_record) == 16);
static_assert(offsetof(key_holder_record, mac) == 8);
static_assert(offsetof(key_holder_record, active) == 14);
static_assert(offsetof(key_holder_record, family) == 15);

using record_bytes = std::array<uint8_t, sizeof(key_holder_record)>;

record_bytes encode_record(const kh_entry& entry);
key_holder_record decode_record(const record_bytes& bytes);

// Reads the next whole record from f; false at the end of the file or before
// a short last record.
bool read_record(FILE* f, key_holder_record& out);

// The bounded line reader of the daemon's files (base/files.h).
using ::line_status;
inline line_status read_line(FILE* f, char* buf, size_t max_len, bool* had_newline = nullptr)
{
    return read_bounded_line(f, buf, max_len, had_newline);
}

// The 17-character neighbour BSSID text for neighbour radio k and local VAP v
// of a key holder whose last byte is `last`.
std::array<char, 18> neighbour_bssid_text(const uint8_t mac[6], uint8_t last, int k, int v,
                                          const vap_offsets& off);

}  // namespace nb
