// A fake wireless driver for the scan module's unit tests: it answers the
// requests that reach driver_ioctl, records what was asked, and can fail
// on demand. Also the module's test fixture.
#pragma once

#include "core/files.h"
#include "core/state.h"
#include "eventloop/eloop.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"
#include "test_util.h"

#include <cerrno>
#include <cstring>
#include <map>
#include <sqlite3.h>
#include <string>
#include <vector>

namespace scantest
{

struct fake_channel {
    uint8_t ieee_chan = 0;
    int32_t max_rssi = 0;
    int32_t min_rssi = 0;
    int16_t noise_floor = 0;
    int16_t spectral_load = 0;
    uint32_t chan_load = 0;
    int32_t chan_rank = 0;
    std::vector<acs_neighbour> neighbours;
};

// What one debug request carried.
struct debug_call {
    std::string ifname;
    uint8_t cmd;
    uint8_t wanted;
    uint32_t report_length;
    uint32_t nbr_length;
    bool has_buffer;
};

struct ext_call {
    std::string ifname;
    uint32_t cmd;
    uint32_t length;
    drv_chan_scan scan; // the block of EXT_CMD_CHAN_SCAN
};

struct fake_driver {
    // Interface flags by name; a name not present fails with ENODEV.
    std::map<std::string, int16_t> ifaces;
    int32_t cac_value = 0;
    bool cac_fail = false;
    drv_voice_stats voice{};
    bool voice_fail = false;
    std::vector<uint8_t> chan_info;
    bool chan_info_fail = false;
    int param_set_errno = 0; // nonzero: the ACS start fails with it
    bool ext_scan_fail = false;
    std::vector<fake_channel> report;
    int fail_debug_call = -1;    // index of the debug request that fails
    int answer7_debug_call = -1; // index of the debug request answered with 7

    std::vector<std::string> flag_queries;
    std::vector<debug_call> debug_calls;
    std::vector<drv_param_req> param_sets;
    std::vector<drv_param_req> param_gets;
    std::vector<ext_call> ext_calls;
    std::vector<std::string> chan_info_names;
    std::vector<uint16_t> chan_info_lengths;
};

inline fake_driver fake;

inline std::string name_of(const char (&field)[16])
{
    return std::string(field, strnlen(field, sizeof field));
}

inline int fail_with(int err)
{
    errno = err;
    return -1;
}

inline int answer_flags(drv_ifreq& req)
{
    std::string name = name_of(req.name);
    fake.flag_queries.push_back(name);
    auto it = fake.ifaces.find(name);
    if (it == fake.ifaces.end())
        return fail_with(ENODEV);
    req.u.flags = it->second;
    return 0;
}

inline void fill_report_entry(acs_report& r)
{
    r.count = static_cast<uint8_t>(fake.report.size());
    if (r.wanted >= fake.report.size())
        return;
    const fake_channel& c = fake.report[r.wanted];
    r.ieee_chan = c.ieee_chan;
    r.chan_nbss = static_cast<uint8_t>(c.neighbours.size());
    r.max_rssi = c.max_rssi;
    r.min_rssi = c.min_rssi;
    r.noise_floor = c.noise_floor;
    r.spectral_load = c.spectral_load;
    r.chan_load = c.chan_load;
    r.chan_rank = c.chan_rank;
    if (r.nbr.pointer) {
        size_t room = r.nbr_length / sizeof(acs_neighbour);
        for (size_t i = 0; i < room && i < c.neighbours.size(); ++i)
            r.nbr.pointer[i] = c.neighbours[i];
    }
}

inline int answer_debug(drv_iwreq& req)
{
    auto* block = static_cast<drv_debug_block*>(req.u.data.pointer);
    acs_report& r = *block->report;
    int index = static_cast<int>(fake.debug_calls.size());
    fake.debug_calls.push_back(
        {name_of(req.name), block->cmd, r.wanted, block->report_length, r.nbr_length, r.nbr.pointer != nullptr});
    if (index == fake.fail_debug_call || req.name[0] == '\0')
        return fail_with(EINVAL);
    fill_report_entry(r);
    return index == fake.answer7_debug_call ? 7 : 0;
}

inline int answer_ext(drv_ifreq& req)
{
    auto* cmd = static_cast<drv_ext_cmd*>(req.u.data);
    ext_call call{name_of(req.name), cmd->cmd, cmd->length, {}};
    if (cmd->cmd == EXT_CMD_CHAN_SCAN)
        memcpy(&call.scan, cmd->data, sizeof call.scan);
    fake.ext_calls.push_back(call);
    if (cmd->cmd == EXT_CMD_VOICE_STATS) {
        if (fake.voice_fail)
            return fail_with(EIO);
        memcpy(cmd->data, &fake.voice, sizeof fake.voice);
        return 0;
    }
    return fake.ext_scan_fail ? fail_with(EIO) : 0;
}

inline int answer_chan_info(drv_iwreq& req)
{
    fake.chan_info_names.push_back(name_of(req.name));
    fake.chan_info_lengths.push_back(req.u.data.length);
    if (fake.chan_info_fail)
        return fail_with(EIO);
    auto* reply = static_cast<drv_chan_info*>(req.u.data.pointer);
    reply->count = static_cast<uint8_t>(fake.chan_info.size());
    for (size_t i = 0; i < fake.chan_info.size(); ++i)
        reply->record[i].ieee_chan = fake.chan_info[i];
    return 0;
}

inline int fake_ioctl(int fd, unsigned long request, void* arg)
{
    if (fd < 0)
        return fail_with(EBADF);
    switch (request) {
    case DRV_SIOCGIFFLAGS:
        return answer_flags(*static_cast<drv_ifreq*>(arg));
    case DRV_REQ_DEBUG:
        return answer_debug(*static_cast<drv_iwreq*>(arg));
    case DRV_REQ_EXT_CMD:
        return answer_ext(*static_cast<drv_ifreq*>(arg));
    case DRV_REQ_CHAN_INFO:
        return answer_chan_info(*static_cast<drv_iwreq*>(arg));
    case DRV_REQ_PARAM_SET:
        fake.param_sets.push_back(*static_cast<drv_param_req*>(arg));
        return fake.param_set_errno ? fail_with(fake.param_set_errno) : 0;
    case DRV_REQ_PARAM_GET: {
        auto* req = static_cast<drv_param_req*>(arg);
        fake.param_gets.push_back(*req);
        if (fake.cac_fail)
            return fail_with(EIO);
        req->param = fake.cac_value;
        return 0;
    }
    default:
        return fail_with(ENOTTY);
    }
}

// Sleeps recorded, with whether each band's marker existed at that moment.
struct sleep_call {
    unsigned seconds;
    bool marker[3];
};
inline std::vector<sleep_call> sleeps;

inline unsigned fake_sleep(unsigned seconds)
{
    sleep_call call{seconds, {}};
    for (int r = 0; r < 3; ++r)
        call.marker[r] = file_exists(scan_db_markers[r]);
    sleeps.push_back(call);
    return 0;
}

inline constexpr int16_t UP = 1;
inline constexpr int16_t DOWN = 0;

// Radio `radio` up with VAP 0 up and VAPs 1..9 down.
inline void radio_with_vap0(int radio)
{
    std::string r = "wifi" + std::to_string(radio);
    fake.ifaces[r] = UP;
    for (int m = 0; m < 10; ++m)
        fake.ifaces[r + "vap" + std::to_string(m)] = m == 0 ? UP : DOWN;
}

inline acs_neighbour neighbour(std::vector<uint8_t> bssid, const char* ssid, int32_t rssi, int32_t phymode = 7,
                               uint8_t ap_type = 0)
{
    acs_neighbour n{};
    memcpy(n.bssid, bssid.data(), sizeof n.bssid);
    snprintf(n.ssid, sizeof n.ssid, "%s", ssid);
    n.rssi = rssi;
    n.phymode = phymode;
    n.vx_ap_type = ap_type;
    return n;
}

// Rows of a query on a database file, every value as text ("NULL" for null).
inline std::vector<std::vector<std::string>> query(const char* path, const char* sql)
{
    std::vector<std::vector<std::string>> rows;
    sqlite3* db = nullptr;
    if (sqlite3_open(path, &db) != SQLITE_OK) {
        sqlite3_close(db);
        ADD_FAILURE() << "cannot open " << path;
        return rows;
    }
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK)
        ADD_FAILURE() << sql << ": " << sqlite3_errmsg(db);
    while (stmt && sqlite3_step(stmt) == SQLITE_ROW) {
        std::vector<std::string> row;
        for (int i = 0; i < sqlite3_column_count(stmt); ++i) {
            const unsigned char* text = sqlite3_column_text(stmt, i);
            row.emplace_back(text ? reinterpret_cast<const char*>(text) : "NULL");
        }
        rows.push_back(row);
    }
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return rows;
}

inline void exec(const char* path, const char* sql)
{
    sqlite3* db = nullptr;
    sqlite3_open(path, &db);
    char* err = nullptr;
    if (sqlite3_exec(db, sql, nullptr, nullptr, &err) != SQLITE_OK)
        ADD_FAILURE() << sql << ": " << (err ? err : "?");
    sqlite3_free(err);
    sqlite3_close(db);
}

} // namespace scantest

// The module's fixture: a clean sandbox, the fake driver and sleep in
// place, empty channel lists and timers, and 802.11r off.
class scan_test : public sandbox_test
{
  protected:
    void SetUp() override
    {
        sandbox_test::SetUp();
        scantest::fake = scantest::fake_driver{};
        scantest::sleeps.clear();
        saved_ioctl_ = driver_ioctl;
        saved_sleep_ = scan_sleep;
        driver_ioctl = scantest::fake_ioctl;
        scan_sleep = scantest::fake_sleep;
        for (auto& list : scan_chan_list)
            list.clear();
        eloop_init(0);
        ft_enabled_vaps = 0;
        saved_radio_type_ = radio_type_val;
    }
    void TearDown() override
    {
        driver_ioctl = saved_ioctl_;
        scan_sleep = saved_sleep_;
        radio_type_val = saved_radio_type_;
        for (auto& list : scan_chan_list)
            list.clear();
        eloop_init(0);
    }

  private:
    driver_ioctl_fn saved_ioctl_ = nullptr;
    scan_sleep_fn saved_sleep_ = nullptr;
    int32_t saved_radio_type_ = 0;
};
