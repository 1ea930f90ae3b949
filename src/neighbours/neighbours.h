// Neighbours and key holders: the per-radio known-AP tables, the key-holder
// list with its MAC derivation, the key-holder files and transition script,
// and the neighbour event socket.
//
// Locking (see daemon/threads.h for the whole order): the table operations take
// ht_mutex themselves. Everything that touches the key-holder list,
// kh_list_nonempty or the three files expects the caller to hold kh_lock,
// taken through a kh_update scope by the event-socket thread (per event),
// process_scan_result (around its hand-over), the 802.11r refresh and the
// SIGRTMIN update.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

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

// One scanned neighbour as scan processing hands it over (8 bytes).
struct scan_ap_record {
    uint8_t bssid[6];
    uint8_t channel;
    uint8_t ap_type;
};
static_assert(sizeof(scan_ap_record) == 8);

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
void parse_known_ap_line(known_ap_table* table, const char* text);
int parse_mac(const char* text, uint8_t out[6]);
int hex_digit_value(char c);

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
    known_ap_table* known_ap_tables[3] = {};  // by radio; null where the board has none
    std::timed_mutex ht_mutex;                // the tables, inside each table operation
    kh_entry kh_list{&kh_list, &kh_list, {}, 0, 0};  // sentinel head of the circular list
    uint8_t kh_list_nonempty = 0;
    std::timed_mutex kh_lock;  // the list, kh_list_nonempty and the three files
    // Held by one whole key-holder update and the transition script it asks
    // for, so the script sees every file of that update and nothing later.
    std::timed_mutex script_lock;
    bool script_wanted = false;  // under kh_lock: the current update asked for the script
    // A file write of the list failed: the files are written again from the
    // list when an update ends or the retry comes, whichever is first.
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
void dlist_insert_after(kh_entry* pos, kh_entry* node);
void dlist_unlink(kh_entry* node);
bool dlist_is_empty(const kh_entry* head);

void add_to_kh_list(kh_candidate* candidate, int radio, uint8_t* changed, int mode);
bool is_new_key_holder(const uint8_t mac[6]);
void traverse_kh_list();
void match_known_aps(const scan_ap_record* records, int count, int radio);
void print_scan_list(int count, const scan_ap_record* records);
// Adds the key holders of /var/roam_key_holders to the list (stored MACs, one
// entry per radio of the board), runs the script when that changed the list,
// and logs the list. reload_key_holders_from does the same for data[0..size)
// holding such a file's bytes.
void reload_key_holders();
void reload_key_holders_from(const uint8_t* data, size_t size);
// Exit clean-up: logs "Removing ..." for each entry, unlinks and frees it.
void free_kh_list();

// ---- Key-holder files and transition script -------------------------------

// One update of the key-holder list and its files, as a scope: takes
// script_lock, then kh_lock. run_ft_script inside it only asks for the
// script; the script runs when the update ends, after kh_lock is released
// and before script_lock is, so it sees the whole update while no thread
// waits on kh_lock behind it. Files left stale by an earlier failure are
// written again from the list at the end. Nests: an inner scope on the same
// thread adds nothing.
class kh_update {
public:
    kh_update();
    ~kh_update();
    kh_update(const kh_update&) = delete;
    kh_update& operator=(const kh_update&) = delete;

private:
    bool outer_;
    bool stale_at_start_ = false;
};

// Writes the key-holder file and every enabled VAP's ap2_macaddr line again
// from the list when an earlier write failed. Any thread but a holder of
// kh_lock; the event-socket thread calls it while no event comes.
void kh_files_retry();
// How often kh_files_retry is due while files are stale, in seconds.
inline constexpr int kh_files_retry_secs = 60;
// Rebuilds the ap2_macaddr lines of the VAPs in `mask` from the list. 0 or -1.
int ap2mac_rebuild(uint32_t mask);

bool key_holder_cached(const kh_entry& entry);
void write_key_holders(const char* mode);
int ap2mac_update(const char* vap, const char* text, int op);
int ap2mac_remove_vap(const char* key);
void key_change_on_addition(const kh_candidate& candidate);
void key_change_on_deletion(int radio, uint8_t family, uint8_t mac[6]);
void vap_ft_status_changed(int radio, int vap, const kh_entry& entry, int status);
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
// Thread entry: detaches itself, binds /tmp/roam_sock and serves events. It
// binds the socket again when the path no longer names it (checked every
// kh_files_retry_secs), until event_socket_closed.
void* event_socket_thread(void* arg);
void remove_key_holder(const uint8_t mac[6]);
// Applies one received datagram (len bytes; missing bytes count as 0, bytes
// past the ninth are ignored). Takes a kh_update as needed; the script runs
// at its end. An event of a known type naming a radio without a table
// is refused with an ERROR line and changes nothing. Event-socket thread
// (and tests).
void handle_neighbour_event(const uint8_t* buf, size_t len);
