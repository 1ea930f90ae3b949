// Pieces shared by the scan module's files: the driver and sleep seams, the
// request builders, the socket helper and the database upserts.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "base/files.h"
#include "scan/driver.h"

// ---- Seams ----------------------------------------------------------------

// Every driver request of the module goes through this pointer. It defaults
// to a plain call of the C library's ioctl (which the end-to-end simulator
// intercepts); unit tests install a fake driver.
using driver_ioctl_fn = int (*)(int fd, unsigned long request, void* arg);
extern driver_ioctl_fn driver_ioctl;

// The scheduler's blocking waits (10 s before a full scan's results, 5 s per
// batch channel). Defaults to the C library's sleep.
using scan_sleep_fn = unsigned (*)(unsigned seconds);
extern scan_sleep_fn scan_sleep;

// ---- Requests ---------------------------------------------------------------

// An AF_INET datagram socket with close-on-exec, only to carry requests.
unique_fd open_request_socket();

// Copies an interface name into a 16-byte name field: at most 16 bytes, the
// rest zero (a name of 16 characters or more fills the field unterminated).
void copy_ifname(char (&dst)[16], const char* src);

// ACS scan start: parameter PARAM_ACS_SCAN with value 4 for the VAP.
void fill_acs_scan_request(drv_param_req& req, const char* vap_name);
// CAC state read: parameter PARAM_CAC_STATE for the VAP.
void fill_cac_state_request(drv_param_req& req, const char* vap_name);
// Single-channel scan block for `channel` (its low 8 bits).
void fill_chan_scan_block(drv_chan_scan& block, int channel);
// Debug block asking for the ACS report into `report`, and the wireless
// request carrying the block for interface `ifname`.
void fill_acs_report_request(drv_iwreq& req, drv_debug_block& block, acs_report& report, const char* ifname);
// Points the report at a neighbour buffer of `entries` entries (null: none).
void set_neighbour_buffer(acs_report& report, acs_neighbour* buffer, size_t entries);
// Asks the debug block for report entry `index` (command written again).
void want_report_entry(drv_debug_block& block, acs_report& report, uint8_t index);
// True when the neighbours of a channel need a second request with a buffer
// of chan_nbss entries: the driver said so (result 7) or the first buffer of
// ACS_NEIGHBOURS_FIRST entries is too small.
bool needs_larger_neighbour_buffer(int result, uint8_t chan_nbss);

// ---- Database ---------------------------------------------------------------

struct sqlite_closer {
    void operator()(sqlite3* db) const { sqlite3_close(db); }
};
using sqlite_ptr = std::unique_ptr<sqlite3, sqlite_closer>;

// One channel's statistics, as CHANNEL_DETAILS stores them.
struct channel_stats {
    uint8_t ieee_chan;
    uint8_t chan_nbss;
    int32_t min_rssi;
    int16_t noise_floor;
    uint32_t chan_load;
    int32_t max_rssi;
    int16_t spectral_load;
    int32_t chan_rank;
};

// One neighbour BSS, as SCANNED_AP_DETAILS stores it. Texts are NUL-terminated.
struct bss_row {
    uint8_t bssid[6];
    const char* ssid;
    uint8_t channel;
    int32_t phymode;
    int32_t rssi;
    uint8_t ap_type;
    const char* timestamp;
    const char* epoch;
};

inline constexpr int DB_OPEN_LINE_CHANNEL = 1278;
inline constexpr int DB_OPEN_LINE_BSS = 1434;

// Opens the database of radio 0..2 for a write cycle; on failure logs the
// open error with `line` and returns null.
sqlite_ptr open_scan_db(int radio, int line);
// open_scan_db for the channel cycle that starts each report's writes, after
// making the database fit to store them: a missing file, an empty directory
// in its place, a file SQLite cannot read (moved aside to scan_dbs_corrupt)
// or one without the tables is replaced by the band's empty schema. What
// cannot be replaced is reported once and tried again at the next report
// (null then). Links and files that are not the daemon's own are refused as
// by every open; once the file has passed, the rows of the same report open
// it without checking it again. Holder of scan_result_lock.
sqlite_ptr open_report_db(int radio);
// Inserts or updates the channel's row (CH_LOAD limited to 100).
void upsert_channel(sqlite3* db, channel_stats stats);
// Inserts or updates the BSS's row in its own write cycle on radio's database.
void upsert_bss(int radio, const bss_row& row);

// ---- Scheduler ---------------------------------------------------------------

// The rogue-AP checks that start the bands' chains: 2.4 GHz and 5 GHz, and
// 5 GHz high when radio_type_val is 1. Event-loop thread.
void start_rogue_checks();
