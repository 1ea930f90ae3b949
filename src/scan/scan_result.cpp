// Scan triggers (full ACS scan, single-channel scan) and the reading of the
// driver's ACS report into the scan database and the key-holder logic.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>

#include "base/log.h"
#include "board/roam_lib.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"

namespace {

constexpr const char* fn_name = "process_scan_result";

// Logs the release of the scan-result lock; declared before the lock's
// guard, so it runs after the lock is released on every return.
struct unlock_note {
    unlock_note() = default;
    unlock_note(const unlock_note&) = delete;
    unlock_note& operator=(const unlock_note&) = delete;
    ~unlock_note() { log_msg(0, log_lvl::debug, "mutex unlocked [%s] \n", fn_name); }
};

// The timestamps shared by every row of one call.
struct scan_stamp {
    char date[32] = {};
    char epoch[32] = {};
};

// One read of the ACS report: the socket, the request and the report.
struct report_session {
    unique_fd fd;
    drv_iwreq req{};
    drv_debug_block block{};
    std::unique_ptr<acs_report> report;

    int request(uint8_t index)
    {
        want_report_entry(block, *report, index);
        return driver_ioctl(fd.get(), DRV_REQ_DEBUG, &req);
    }
};

using neighbour_buffer = std::unique_ptr<acs_neighbour[]>;

neighbour_buffer allocate_neighbours(size_t entries)
{
    // GCOVR_EXCL_BR_START: a small nothrow allocation, never refused under overcommit
    return neighbour_buffer(new (std::nothrow) acs_neighbour[entries]());
    // GCOVR_EXCL_BR_STOP
}

bool channel_wanted(uint8_t ieee_chan, int channel)
{
    return channel == 0 || ieee_chan == channel;
}

// The interface through which the report is read: a radio name (at most
// five characters) stands for its active VAP or athN; anything else is a VAP.
void resolve_ifname(int radio, const char* ifname, char (&out)[32])
{
    out[0] = '\0';
    if (strlen(ifname) > 5) {
        snprintf(out, sizeof out, "%.31s", ifname);  // cut to the buffer; refused below as too long
        return;
    }
    int vap = find_active_vap(ifname, radio);
    if (vap == VAP_IDX_FALLBACK)
        snprintf(out, sizeof out, "ath%d", radio);
    else if (vap != -1)
        snprintf(out, sizeof out, "wifi%dvap%d", radio, vap);
}

channel_stats stats_of(const acs_report& r)
{
    return channel_stats{r.ieee_chan, r.chan_nbss, r.min_rssi,      r.noise_floor,
                         r.chan_load, r.max_rssi,  r.spectral_load, r.chan_rank};
}

// Statistics of every report entry; rows only for the wanted channel(s).
int channel_cycle(report_session& s, int radio, int channel)
{
    sqlite_ptr db = open_report_db(radio);
    if (!db)
        return 0;
    for (unsigned i = 0; i < s.report->count; ++i) {
        if (s.request(static_cast<uint8_t>(i)) < 0) {
            log_msg(0, log_lvl::error, "Dorvand DBG req failed");
            return -1;
        }
        log_msg(0, log_lvl::error, "acs->ieee_chan:%d, channel:%d \n", s.report->ieee_chan, channel);
        if (channel_wanted(s.report->ieee_chan, channel))
            upsert_channel(db.get(), stats_of(*s.report));
    }
    return 0;
}

// Fetches entry i with its neighbours into `buffer` (`entries` of room),
// asking a second time with a larger buffer when the first is too small.
int fetch_neighbours(report_session& s, uint8_t i, neighbour_buffer& buffer, size_t& entries)
{
    acs_report& report = *s.report;
    entries = ACS_NEIGHBOURS_FIRST;
    buffer = allocate_neighbours(entries);
    // GCOVR_EXCL_START: a small nothrow allocation, never refused under overcommit
    if (!buffer) {
        log_msg(0, log_lvl::error, "Failed to allocate memory");
        return -1;
    }
    // GCOVR_EXCL_STOP
    set_neighbour_buffer(report, buffer.get(), entries);
    int r = s.request(i);
    if (needs_larger_neighbour_buffer(r, report.chan_nbss)) {
        log_msg(0, log_lvl::info, "channel:%d, neighbour count:%d \n", report.ieee_chan, report.chan_nbss);
        set_neighbour_buffer(report, nullptr, 0);
        buffer.reset();
        entries = report.chan_nbss;
        buffer = allocate_neighbours(entries);
        // GCOVR_EXCL_START: a small nothrow allocation, never refused under overcommit
        if (!buffer) {
            log_msg(0, log_lvl::error, "Failed to allocate memory");
            return -1;
        }
        // GCOVR_EXCL_STOP
        set_neighbour_buffer(report, buffer.get(), entries);
        if (s.request(i) < 0) {
            log_msg(0, log_lvl::error, "Dorvand DBG req failed");
            return -1;
        }
    } else if (r < 0) {
        log_msg(0, log_lvl::error, "Failed to return a value");
        return -1;
    }
    return 0;
}

void hand_over(const scan_ap_record* list, int count, int radio)
{
    log_msg(0, log_lvl::info, "\t #### SCAN RESULTS ### \n");
    key_holders_from_scan(list, count, radio);
}

// Logs and stores the channel's neighbours, then hands them to the
// key-holder logic. Never reads past the buffer the driver filled.
void store_neighbours(const acs_report& report, const acs_neighbour* buffer, size_t entries, int radio,
                      const scan_stamp& stamp)
{
    size_t count = std::min<size_t>(report.chan_nbss, entries);
    // GCOVR_EXCL_START: a small nothrow allocation, never refused under overcommit
    std::unique_ptr<scan_ap_record[]> list(new (std::nothrow) scan_ap_record[count]);
    if (!list)
        log_msg(0, log_lvl::error, "%s: Failed to allocate memory for vx_ap_mac_type\n", fn_name);
    // GCOVR_EXCL_STOP
    for (size_t j = 0; j < count; ++j) {
        const acs_neighbour& n = buffer[j];
        char ssid[sizeof n.ssid];
        memcpy(ssid, n.ssid, sizeof ssid);
        ssid[sizeof ssid - 1] = '\0';
        // Anyone in radio range picks the SSID: it goes to the log escaped.
        log_msg(0, log_lvl::error,
                "Dorvand chan:%3d\t chan_nbss:%d\t ssid:%s\t bssid:%02x:%02x:%02x:%02x:%02x:%02x\t rssi:%d\t "
                "phymode:%d vx_ap_type:%d\n",
                report.ieee_chan, report.chan_nbss, log_escape(ssid).c_str(), n.bssid[0], n.bssid[1], n.bssid[2],
                n.bssid[3], n.bssid[4], n.bssid[5], n.rssi, n.phymode, n.vx_ap_type);
        if (list) {  // GCOVR_EXCL_BR_LINE: as for the list above
            scan_ap_record& rec = list[j];
            memcpy(rec.bssid, n.bssid, sizeof rec.bssid);
            rec.channel = report.ieee_chan;
            rec.ap_type = n.vx_ap_type;
        }
        bss_row row{};
        memcpy(row.bssid, n.bssid, sizeof row.bssid);
        row.ssid = ssid;
        row.channel = report.ieee_chan;
        row.phymode = n.phymode;
        row.rssi = n.rssi;
        row.ap_type = n.vx_ap_type;
        row.timestamp = stamp.date;
        row.epoch = stamp.epoch;
        upsert_bss(radio, row);
    }
    if (count != 0 && list)  // GCOVR_EXCL_BR_LINE: as for the list above
        hand_over(list.get(), static_cast<int>(count), radio);
}

int neighbour_cycle(report_session& s, int radio, int channel, const scan_stamp& stamp)
{
    for (unsigned i = 0; i < s.report->count; ++i) {
        neighbour_buffer buffer;
        size_t entries = 0;
        int rc = fetch_neighbours(s, static_cast<uint8_t>(i), buffer, entries);
        if (rc == 0 && channel_wanted(s.report->ieee_chan, channel))
            store_neighbours(*s.report, buffer.get(), entries, radio, stamp);
        // The buffer goes now: keep the report from pointing at it.
        set_neighbour_buffer(*s.report, nullptr, 0);
        if (rc < 0)
            return -1;
    }
    return 0;
}

}  // namespace

int trigger_acs_scan(const char* vap_name)
{
    unique_fd fd = open_request_socket();
    if (!fd.valid()) {
        log_msg(1, log_lvl::error, "socket open failed for scanning\n");
        return -1;
    }
    drv_param_req req{};
    fill_acs_scan_request(req, vap_name);
    if (driver_ioctl(fd.get(), DRV_REQ_PARAM_SET, &req) != 0) {
        int err = errno;
        log_msg(1, log_lvl::error, "%s | Failed to trigger ACS scan [%s | %d ]\n", vap_name, strerror(err), err);
        fd.reset();
        errno = err;  // the scheduler reports it too
        return -1;
    }
    return 0;
}

int trigger_batch_scan(int radio, int channel)
{
    unique_fd fd = open_request_socket();
    if (!fd.valid()) {
        log_msg(0, log_lvl::error, "Cannot open Socket %s\n", "trigger_batch_scan");
        return -1;
    }
    drv_chan_scan block{};
    fill_chan_scan_block(block, channel);
    drv_ext_cmd cmd{};
    cmd.cmd = EXT_CMD_CHAN_SCAN;
    cmd.data = &block;
    cmd.length = DRV_CHAN_SCAN_LEN;
    drv_ifreq req{};
    char name[16] = {};
    snprintf(name, 15, "wifi%d", radio);  // bound 15: byte 15 of the field stays 0
    copy_ifname(req.name, name);
    req.u.data = &cmd;
    log_msg(0, log_lvl::info, "The ACS scan trigger for radio:%d on channel:%d\n", radio, channel);
    if (driver_ioctl(fd.get(), DRV_REQ_EXT_CMD, &req) < 0) {
        log_msg(0, log_lvl::error, "%s: ioctl failed\n", "trigger_batch_scan");
        return -1;
    }
    return 0;
}

int process_scan_result(int radio, const char* ifname, int channel)
{
    // GCOVR_EXCL_START: the scheduler passes radios 0..2 and a name
    if (radio < 0 || radio > 2 || ifname == nullptr) {
        log_msg(0, log_lvl::error, "[dorvand] %s: no scan database for radio %d\n", fn_name, radio);
        return -1;
    }
    // GCOVR_EXCL_STOP
    unlock_note note;
    std::lock_guard<std::mutex> hold(scanning().scan_result_lock);
    log_msg(0, log_lvl::debug, "mutex locked [%s] \n", fn_name);
    scan_stamp stamp;
    get_date_string(stamp.date);
    get_epoch_string(stamp.epoch);

    report_session s;
    s.fd = open_request_socket();
    if (!s.fd.valid()) {
        int err = errno;
        log_msg(1, log_lvl::error, "socket open failed [%d|%s]\n", err, strerror(err));
        return -1;
    }
    char name[32];
    resolve_ifname(radio, ifname, name);
    log_msg(0, log_lvl::debug, "ifname: %s\n", name);
    // GCOVR_EXCL_START: the scheduler's names are at most nine characters long; then
    // a small nothrow allocation, never refused under overcommit
    if (strlen(name) >= sizeof s.req.name) {
        log_msg(0, log_lvl::error, "ifname too long: %s\n", name);
        return -1;
    }
    s.report.reset(new (std::nothrow) acs_report{});
    if (!s.report) {
        log_msg(0, log_lvl::error, "insufficient memory \n");
        return -1;
    }
    // GCOVR_EXCL_STOP
    fill_acs_report_request(s.req, s.block, *s.report, name);
    if (driver_ioctl(s.fd.get(), DRV_REQ_DEBUG, &s.req) < 0) {
        log_msg(0, log_lvl::error, "Dorvand error in ioctl \n");
        return -1;
    }
    if (channel_cycle(s, radio, channel) < 0)
        return -1;
    return neighbour_cycle(s, radio, channel, stamp);
}
