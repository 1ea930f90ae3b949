// Pieces shared by the neighbour module's source files (and its own tests)
// only: the module's state and the operations that expect a caller to hold
// its locks, the family offsets, the key-holder file record and a bounded
// line reader.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "base/byte_source.h"
#include "base/files.h"
#include "base/paths.h"
#include "neighbours/neighbours.h"

inline constexpr uint8_t FAMILY_TRV = 0;
inline constexpr uint8_t FAMILY_TRM = 1;

// ---- Known-AP tables ------------------------------------------------------

struct known_ap_entry {
    uint8_t mac[6];
    uint8_t present;
    uint8_t family;
    uint8_t channel;
    uint8_t ap_type;
    known_ap_entry* next;
};

struct known_ap_table;

// A new table with every slot empty; null when memory runs out.
known_ap_table* create_hash_table();
// Frees every entry of slots 0..15, the slot array and the handle. Caller
// holds ht_mutex (or is the only thread left).
void free_known_ap_table(known_ap_table* table);
void add_to_ht(known_ap_table* table, const uint8_t mac[6], uint8_t present, uint8_t family, uint8_t channel,
               uint8_t ap_type);
void del_from_ht(known_ap_table* table, const uint8_t mac[6]);
void traverse_hash_table(known_ap_table* table, const char* name);
// Record i of records looked up in the radio's table; a heap copy of the match.
std::unique_ptr<known_ap_entry> find_known_ap(const scan_ap_record* records, int radio, int i);
// Adds the known APs of radio `name` ("wlan0".."wlan2") listed in
// /tmp/run/config; load_known_aps_text does the same for data[0..size)
// holding such a file's text.
void load_known_aps(known_ap_table* table, const char* name);
void load_known_aps_text(known_ap_table* table, const char* name, const char* data, size_t size);

// ---- Key-holder list ------------------------------------------------------

struct kh_entry {
    kh_entry* next;
    kh_entry* prev;
    uint8_t mac[6];
    uint8_t active;
    uint8_t family;
};

struct kh_candidate {
    uint8_t mac[6];
    uint8_t active;
    uint8_t family;
    uint8_t channel;
    uint8_t ap_type;
};

// What the module owns for the life of the process (the thread and lock
// rules are in daemon/threads.h).
struct neighbour_state {
    known_ap_table* known_ap_tables[3] = {};         // by radio; null where the board has none
    std::timed_mutex ht_mutex;                       // the tables, inside each table operation
    kh_entry kh_list{&kh_list, &kh_list, {}, 0, 0};  // sentinel head of the circular list
    uint8_t kh_list_nonempty = 0;
    std::timed_mutex kh_lock;  // the list, kh_list_nonempty and the three files
    // Held by one whole key-holder update and the transition script it asks
    // for, so the script sees every file of that update and nothing later.
    std::timed_mutex script_lock;
    bool script_wanted = false;  // under kh_lock: the current update asked for the script
    // A file write of the list failed or could not be made (the key-change
    // file or grep unavailable): the files are written again from the list
    // when an update ends or the retry comes, whichever is first.
    std::atomic<bool> files_stale{false};
    // Bit 10*radio + vap: 802.11r enabled. Written by the status refresh,
    // read by the key-change writers under kh_lock.
    std::atomic<uint32_t> ft_enabled_vaps{0};
    // Held by the event-socket thread while it binds /tmp/roam_sock again,
    // and by the shutdown while it removes the socket for good
    // (event_socket_closed), so no bind can follow that removal.
    std::timed_mutex event_socket_lock;
    std::atomic<bool> event_socket_closed{false};
};
neighbour_state& neighbours();

inline constexpr int KH_MODE_DERIVE = 1;
inline constexpr int KH_MODE_STORED = 2;

// The list primitives (callers hold kh_lock). dlist_append links a node in
// before the head, at the tail; dlist_unlink joins the node's neighbours and
// clears its links. Walks that free nodes take the successor first.
void dlist_init(kh_entry* head);
void dlist_append(kh_entry* head, kh_entry* node);
void dlist_unlink(kh_entry* node);
bool dlist_is_empty(const kh_entry* head);

// The operations below expect the caller to hold kh_lock (a kh_update).
void add_to_kh_list(kh_candidate* candidate, int radio, uint8_t* changed, int mode);
void traverse_kh_list();
void match_known_aps(const scan_ap_record* records, int count, int radio);
// reload_key_holders for data[0..size) holding a key-holder file's bytes.
void reload_key_holders_from(const uint8_t* data, size_t size);

// ---- Key-holder files and transition script -------------------------------

// Writes the key-holder file and every enabled VAP's ap2_macaddr line again
// from the list when an earlier write failed. Any thread but a holder of
// kh_lock; the event-socket thread calls it while no event comes.
void kh_files_retry();
// How often kh_files_retry is due while files are stale, in seconds.
inline constexpr int kh_files_retry_secs = 60;
// Rebuilds the ap2_macaddr lines of the VAPs in `mask` from the list. 0 or -1.
int ap2mac_rebuild(uint32_t mask);

void write_key_holders(const char* mode);
int ap2mac_update(const char* vap, const char* text, int op);
int ap2mac_remove_vap(const char* key);
void key_change_on_addition(const kh_candidate& candidate);
void key_change_on_deletion(int radio, uint8_t family, uint8_t mac[6]);
// Inside a kh_update, asks for the script at its end; outside one, runs it.
void run_ft_script();

// ---- Neighbour event socket -----------------------------------------------

inline constexpr uint8_t AP_DELETION = 0;
inline constexpr uint8_t AP_ADDITION = 1;
inline constexpr uint8_t KH_ADDITION = 2;

// The datagram: bytes only, so no padding and no byte order.
struct neighbour_event {
    uint8_t mac[6];
    uint8_t type;
    uint8_t family;
    uint8_t wlan;
};
static_assert(sizeof(neighbour_event) == 9);
static_assert(offsetof(neighbour_event, type) == 6);
static_assert(offsetof(neighbour_event, family) == 7);
static_assert(offsetof(neighbour_event, wlan) == 8);

// The event a datagram of len bytes carries: missing bytes count as 0,
// bytes past the ninth are ignored.
neighbour_event decode_neighbour_event(const uint8_t* buf, size_t len);

int open_event_socket();
void remove_key_holder(const uint8_t mac[6]);
// Applies one received datagram (len bytes; missing bytes count as 0, bytes
// past the ninth are ignored). Takes a kh_update as needed; the script runs
// at its end. An event of a known type naming a radio without a table
// is refused with an ERROR line and changes nothing. Event-socket thread
// (and tests).
void handle_neighbour_event(const uint8_t* buf, size_t len);

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
line_status read_line(byte_source& in, char* buf, size_t max_len, bool* had_newline = nullptr, size_t* len = nullptr);
line_status read_line(FILE* f, char* buf, size_t max_len, bool* had_newline = nullptr);

// The 17-character neighbour BSSID text for neighbour radio k and local VAP v
// of a key holder whose last byte is `last`.
std::array<char, 18> neighbour_bssid_text(const uint8_t mac[6], uint8_t last, int k, int v, const vap_offsets& off);

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
