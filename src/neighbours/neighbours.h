// Neighbours and key holders: the per-radio known-AP tables, the key-holder
// list with its MAC derivation, the key-holder files and transition script,
// and the neighbour event socket.
//
// Locking (see daemon/threads.h for the whole order): the module takes its
// own locks. Each operation below that changes the key-holder list or its
// files runs as one kh_update; the table operations take ht_mutex inside.
// Callers hold none of them, so the order lives in this module alone.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

// One scanned neighbour as scan processing hands it over (8 bytes).
struct scan_ap_record {
    uint8_t bssid[6];
    uint8_t channel;
    uint8_t ap_type;
};
static_assert(sizeof(scan_ap_record) == 8);

// ---- Start-up and exit ----------------------------------------------------

// Gives `radio` (0..2) an empty known-AP table; a radio that has one keeps
// it. False when memory runs out: events and scans for that radio are then
// refused as for a radio the board does not have. Main thread, before the
// other threads start.
bool create_known_ap_table(int radio);
// Makes the key-holder list empty (its head points at itself). Main thread,
// before the other threads start.
void init_kh_list();

// What lock_neighbours_for_exit could take in time.
struct neighbour_exit_locks {
    bool key_holders;  // kh_lock: the list and its files
    bool tables;       // ht_mutex: the known-AP tables
};
// Takes kh_lock, then ht_mutex, each waiting at most `wait`, so a thread
// that holds the first while it wants the second (a scan match) can finish
// and let go. Neither is ever released: a thread waiting for one must not
// run on freed state before the process ends. Signal thread, at exit only.
neighbour_exit_locks lock_neighbours_for_exit(std::chrono::seconds wait);
// Frees every radio's known-AP table (entries of slots 0..15, the slot array
// and the handle) and forgets it. Caller holds the tables' exit lock or is
// the only thread left.
void free_known_ap_tables();
// Exit clean-up: logs "Removing ..." for each entry, unlinks and frees it.
// Caller holds the key holders' exit lock or is the only thread left.
void free_kh_list();

// ---- 802.11r status -------------------------------------------------------

// Bit 10*radio + vap: 802.11r enabled. Written by the status refresh, read
// by the key-change writers and the scan scheduler. Any thread.
std::atomic<uint32_t>& ft_enabled_vaps();

// ---- Known-AP tables ------------------------------------------------------

// Adds the known APs of `radio` listed in /tmp/run/config to its table, then
// prints the table. A radio without a table is left alone. Event-loop thread
// (before each full scan).
void reload_known_ap_table(int radio);

// ---- Key holders ----------------------------------------------------------

// Scan processing's hand-over of one channel's `count` neighbours seen by
// `radio`, as one update: prints them, makes key holders of the known APs
// among them, prints the list and appends the new records to the key-holder
// file. The script runs at the end when a key holder was added. Event-loop
// thread.
void key_holders_from_scan(const scan_ap_record* records, int count, int radio);
// As one update: adds the key holders of /var/roam_key_holders to the list
// (stored MACs, one entry per radio of the board), asks for the script when
// that changed the list, and logs the list. Any thread.
void reload_key_holders();
// As one update: tells every key holder of the list (in list order) that
// VAP `vap` of `radio` now has 802.11r status `status` (1 or 0), which
// rewrites that VAP's key-change note and ap2_macaddr line; logs "List is
// empty" instead when the list had no entry at its last traversal.
void key_holders_ft_status_changed(int radio, int vap, int status);
// As one update: runs the transition script once when the list had entries
// at its last traversal.
void run_ft_script_if_key_holders();

// One update of the key-holder list and its files, as a scope: takes
// script_lock, then kh_lock. run_ft_script inside it only asks for the
// script; the script runs when the update ends, after kh_lock is released
// and before script_lock is, so it sees the whole update while no thread
// waits on kh_lock behind it. Files left stale by an earlier failure are
// written again from the list at the end. Nests: an inner scope on the same
// thread adds nothing. Every operation above takes one; a test holds one to
// stand for an update in progress.
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

// ---- Neighbour event socket -----------------------------------------------

// Thread entry: detaches itself, binds /tmp/roam_sock and serves events. It
// binds the socket again when the path no longer names it (checked every
// minute), until close_event_socket_for_exit.
void* event_socket_thread(void* arg);
// Shutdown: marks the event socket closed for good, so the event thread never
// binds it again, and calls `remove` on its path once no rebind is under way
// (waiting at most `wait` for one to finish). Signal thread, at exit only.
void close_event_socket_for_exit(std::chrono::seconds wait, void (*remove)(const char* path));
