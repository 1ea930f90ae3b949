// Background channel scanning: the per-band scheduler, the radio, VAP and
// traffic checks, the scan trigger and result processing, and the per-band
// scan databases. Everything here runs on the event-loop thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

#include "base/growable.h"

// ---- Radio, VAP and traffic checks ----------------------------------------

inline constexpr int VAP_IDX_FALLBACK = 16;
inline constexpr int CAC_RUNNING = 1;
inline constexpr int VOICE_ACTIVE = 2;

// What the module owns for the life of the process.
struct scan_state {
    // Per-radio channel lists learned after the first full scan; they only grow.
    growable_array<int32_t> scan_chan_list[3];
    // Held by process_scan_result for its whole run.
    std::mutex scan_result_lock;
    uint16_t rand_scan_timer = 0;
    // Per band: its marker file is there because a scan cycle is writing.
    std::atomic<bool> marker_set[3] = {};
    // Held while a marker is created or removed. Once the exit has removed
    // the markers (markers_closed), no cycle creates one again.
    std::timed_mutex marker_lock;
    bool markers_closed = false;  // under marker_lock
    // Per band: a database that cannot be replaced has been reported; cleared
    // by the next write cycle that opens it. Under scan_result_lock.
    bool db_fault_told[3] = {};
    // Per band: the current report's write cycle found the database file to
    // be the daemon's own, so its rows open it without asking again. Under
    // scan_result_lock.
    bool db_checked[3] = {};
};
scan_state& scanning();

int is_radio_up(int radio);
int find_active_vap(const char* radio_name, int radio);
int get_cac_state(const char* vap_name);
void set_chanlist(const char* vap_name);
int monitor_traffic(const char* ifname);
int get_channel_info(const char* ifname);

// ---- Scan databases --------------------------------------------------------

int create_scan_db_2g();
int create_scan_db_5g();
int create_scan_db_5gh();

// ---- Scan trigger and results ----------------------------------------------

int trigger_acs_scan(const char* vap_name);
int trigger_batch_scan(int radio, int channel);
// Reads the driver's ACS report for radio R through interface I (a VAP name,
// or a radio name resolved to its active VAP) and stores channel C (0: all).
int process_scan_result(int radio, const char* ifname, int channel);

// ---- Scheduler (timer handlers: first context 0, radio in the second) ------

// The start-up timer's handler: runs the start-up work (see
// set_scan_startup_work), then starts each band's rogue-AP checks.
void start_scan_scheduler(intptr_t ctx1, intptr_t ctx2);
// The work the start-up timer runs before the bands' checks begin (the
// daemon gives the first 802.11r status read). Set before the loop runs.
void set_scan_startup_work(void (*work)());
// Cancels every timer of the scheduler, band by band, logging each count.
// Any thread (the event loop has its own lock).
void stop_scan_scheduler();
// Removes the marker of every band whose scan cycle is writing now, so an
// exit in the middle of a scan leaves none behind. Any thread.
void remove_scan_markers();
// Removes the markers (regular files only) that a killed daemon left behind,
// with a line for each. Start-up, once the pid file is locked and before the
// scans begin, so no scan cycle of any daemon is writing.
void remove_stale_scan_markers();
void rogue_ap_check_2g(intptr_t ctx1, intptr_t ctx2);
void rogue_ap_check_5gl(intptr_t ctx1, intptr_t ctx2);
void rogue_ap_check_5gh(intptr_t ctx1, intptr_t ctx2);
void start_2g_scan_timer(intptr_t ctx1 = 0, intptr_t ctx2 = 0);
void start_5gl_scan_timer(intptr_t ctx1 = 0, intptr_t ctx2 = 0);
void start_5gh_scan_timer(intptr_t ctx1 = 0, intptr_t ctx2 = 0);
void trigger_2g_full_scan(intptr_t ctx1, intptr_t ctx2);
void trigger_5gl_full_scan(intptr_t ctx1, intptr_t ctx2);
void trigger_5gh_full_scan(intptr_t ctx1, intptr_t ctx2);
void trigger_2g_batch_scan(intptr_t ctx1, intptr_t ctx2);
void trigger_5gl_batch_scan(intptr_t ctx1, intptr_t ctx2);
void trigger_5gh_batch_scan(intptr_t ctx1, intptr_t ctx2);
void set_rand_scan_timer();
