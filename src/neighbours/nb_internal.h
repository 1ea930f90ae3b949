// Pieces shared by the neighbour module's source files only: fixed paths,
// the family offsets, the key-holder file record and a bounded line reader.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>
#include <string_view>

#include "base/byte_source.h"
#include "base/files.h"
#include "base/paths.h"
#include "neighbours/neighbours.h"

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

// Reads the next whole record; false at the end or before a short last
// record.
bool read_record(byte_source& in, key_holder_record& out);
bool read_record(FILE* f, key_holder_record& out);

// Reads lines of at most `max_len` bytes (newline not counted) into a
// caller's buffer of max_len + 2 bytes, the newline removed and a NUL put
// after the line; `had_newline`, when given, tells whether there was one
// (the last line may lack it), `len` the line's length in bytes. A line is
// measured by the bytes read, NULs included: an over-long line is consumed
// to its end and reported as such, so its tail is never taken for a line of
// its own, whatever it holds.
enum class line_status { ok, too_long, end };
line_status read_line(byte_source& in, char* buf, size_t max_len, bool* had_newline = nullptr,
                      size_t* len = nullptr);
line_status read_line(FILE* f, char* buf, size_t max_len, bool* had_newline = nullptr);

// The 17-character neighbour BSSID text for neighbour radio k and local VAP v
// of a key holder whose last byte is `last`.
std::array<char, 18> neighbour_bssid_text(const uint8_t mac[6], uint8_t last, int k, int v,
                                          const vap_offsets& off);

// The ap2_macaddr file's lines are at most 1022 bytes (a 1024-byte buffer
// with the newline and the terminator).
inline constexpr size_t ap2mac_max_line = 1022;

// What the rewrite of /tmp/ap2_macaddr.txt makes of one line (its text, the
// newline removed): the line to write, or nothing to drop it.
// ap2mac_update_line adds (op 1) or deletes (op 0) the BSSID `text` on the
// line of `key` ("ap2_macaddr_wifiXvapY"); `last_token` carries the
// diagnostic's token from line to line of one rewrite.
// ap2mac_remove_line drops the line of `key`.
std::optional<std::string> ap2mac_update_line(std::string_view line, const std::string& key, const char* text, int op,
                                              std::string& last_token);
std::optional<std::string> ap2mac_remove_line(std::string_view line, const char* key);

}  // namespace nb
