// A fake wireless driver for the scan module's unit tests: it answers the
// requests that reach driver_ioctl, records what was asked, and can fail
// on demand. Also the module's test fixture and database helpers.
#pragma once

#include <sqlite3.h>

#include <cerrno>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "base/files.h"
#include "base/paths.h"
#include "eventloop/eloop.h"
#include "model/acs_report.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"
#include "test_util.h"

namespace scantest {

using dorvsim::acs_channel;

struct fake_driver {
    // Interface flags by name; a name not present fails with ENODEV.
    std::map<std::string, int16_t> ifaces;
    int32_t cac_value = 0;
    drv_voice_stats voice{};
    std::vector<uint8_t> chan_info;
    int param_set_errno = 0;  // nonzero: the ACS start fails with it
    bool fail_io = false;     // CAC, voice, channel-info and channel-scan requests fail
    std::vector<acs_channel> report;
    int fail_debug_call = -1;     // index of the debug request that fails
    int answer7_debug_call = -1;  // index of the debug request answered with 7

    std::vector<uint32_t> debug_calls;    // each one's neighbour buffer length, 0 without a buffer
    std::vector<std::string> param_sets;  // "<interface> <parameter>=<value>"
    std::vector<std::string> param_gets;  // "<interface> <parameter>"
};

inline fake_driver fake;

inline int fail_with(int err)
{
    errno = err;
    return -1;
}

// The request, parameter and command numbers are the driver's, written out
// here: a wrong number on the daemon's side is a request the fake refuses.
inline int fake_ioctl(int fd, unsigned long request, void* arg)
{
    if (fd < 0)
        return fail_with(EBADF);
    auto* param = static_cast<drv_param_req*>(arg);
    auto& ifr = *static_cast<drv_ifreq*>(arg);
    auto& iwr = *static_cast<drv_iwreq*>(arg);
    const std::string name(ifr.name, strnlen(ifr.name, sizeof ifr.name));
    switch (request) {
    case 0x8913: {
        auto it = fake.ifaces.find(name);
        if (it == fake.ifaces.end())
            return fail_with(ENODEV);
        ifr.u.flags = it->second;
        return 0;
    }
    case 0x8BF8: {
        auto* block = static_cast<drv_debug_block*>(iwr.u.data.pointer);
        if (block->cmd != 20)
            return fail_with(EOPNOTSUPP);
        acs_report& r = *block->report;
        int index = static_cast<int>(fake.debug_calls.size());
        fake.debug_calls.push_back(r.nbr.pointer ? r.nbr_length : 0);
        if (index == fake.fail_debug_call || iwr.name[0] == '\0')  // no interface of that name
            return fail_with(EINVAL);
        dorvsim::acs_answer_request(fake.report, r, false);
        return index == fake.answer7_debug_call ? 7 : 0;
    }
    case 0x89F8: {
        auto* cmd = static_cast<drv_ext_cmd*>(ifr.u.data);
        if (cmd->cmd != 6 && cmd->cmd != 23)  // channel scan, voice statistics
            return fail_with(EOPNOTSUPP);
        if (fake.fail_io)
            return fail_with(EIO);
        if (cmd->cmd == 23)
            memcpy(cmd->data, &fake.voice, sizeof fake.voice);
        return 0;
    }
    case 0x8BE7: {
        if (fake.fail_io)
            return fail_with(EIO);
        auto* reply = static_cast<drv_chan_info*>(iwr.u.data.pointer);
        reply->count = static_cast<uint8_t>(fake.chan_info.size());
        for (size_t i = 0; i < fake.chan_info.size(); ++i)
            reply->record[i].ieee_chan = fake.chan_info[i];
        return 0;
    }
    case 0x8BE0:
        fake.param_sets.push_back(name + " " + std::to_string(param->param) + "=" + std::to_string(param->value));
        return fake.param_set_errno ? fail_with(fake.param_set_errno) : 0;
    case 0x8BE1:
        fake.param_gets.push_back(name + " " + std::to_string(param->param));
        param->param = fake.cac_value;
        return fake.fail_io ? fail_with(EIO) : 0;
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
    sleeps.push_back({seconds,
                      {file_exists(paths::scan_db_markers[0]), file_exists(paths::scan_db_markers[1]),
                       file_exists(paths::scan_db_markers[2])}});
    return 0;
}

inline constexpr int16_t UP = 1;
inline constexpr int16_t DOWN = 0;

// A channel of the ACS report with `neighbours` BSSIDs 02:00:<chan>:00:<i>:10.
inline acs_channel channel(uint8_t chan, size_t neighbours, uint32_t load = 20)
{
    acs_channel c{chan, -30 - chan, -90 + chan, -100, 3, load, 10 + chan, {}};
    for (uint8_t i = 0; i < neighbours; ++i)
        c.neighbours.push_back({7, -60 - i, {0x02, 0x00, chan, 0x00, i, 0x10}, 0, "ssid", 0, {}});
    return c;
}

// A log line naming fixed paths under /tmp, with each where it is for this run.
inline std::string located(const std::string& line)
{
    const std::string tmp = testutil::at("/tmp/");
    std::string out = line;
    for (size_t at = out.find("/tmp/"); at != std::string::npos; at = out.find("/tmp/", at + tmp.size()))
        out.replace(at, 5, tmp);
    return out;
}

using rows = std::vector<std::vector<std::string>>;

// Runs sql on a database file; the rows it returns, every value as text
// ("NULL" for null).
inline rows query(const std::string& path, const char* sql)
{
    rows out;
    sqlite3* db = nullptr;
    char* err = nullptr;
    auto add_row = [](void* p, int n, char** values, char**) {
        auto& r = static_cast<rows*>(p)->emplace_back();
        for (int i = 0; i < n; ++i)
            r.emplace_back(values[i] ? values[i] : "NULL");
        return 0;
    };
    if (sqlite3_open(path.c_str(), &db) != SQLITE_OK || sqlite3_exec(db, sql, add_row, &out, &err) != SQLITE_OK)
        ADD_FAILURE() << path << ": " << sql << ": " << (err ? err : sqlite3_errmsg(db));
    sqlite3_free(err);
    sqlite3_close(db);
    return out;
}

inline std::string db2g()
{
    return testutil::at("/tmp/scan_db_2g");
}

inline rows channel_rows()
{
    return query(db2g(), "SELECT CHANNEL FROM CHANNEL_DETAILS ORDER BY CHANNEL");
}

inline rows bss_rows()
{
    return query(db2g(), "SELECT MAC FROM SCANNED_AP_DETAILS ORDER BY MAC");
}

// A case of a parameterised test, printed and named by its name.
struct named_case {
    const char* name;
};

inline void PrintTo(const named_case& c, std::ostream* os)
{
    *os << c.name;
}

inline constexpr auto case_name = [](const auto& p) { return std::string(p.param.name); };

}  // namespace scantest

// The module's fixture: a clean sandbox, the fake driver and sleep in
// place, each radio up with VAP 0 up and VAPs 1..9 down, a report of
// channels 1 and 6 with a neighbour each, empty channel lists and timers,
// fresh known-AP tables, no database fault reported yet, and 802.11r off.
class scan_test : public sandbox_test {
  protected:
    void SetUp() override
    {
        sandbox_test::SetUp();
        scantest::fake = scantest::fake_driver{};
        for (int r = 0; r < 3; ++r) {
            std::string radio = "wifi" + std::to_string(r);
            scantest::fake.ifaces[radio] = scantest::UP;
            for (int m = 0; m < 10; ++m)
                scantest::fake.ifaces[radio + "vap" + std::to_string(m)] = m == 0 ? scantest::UP : scantest::DOWN;
        }
        scantest::fake.report = {scantest::channel(1, 1), scantest::channel(6, 1)};
        scantest::sleeps.clear();
        driver_ioctl = scantest::fake_ioctl;
        scan_sleep = scantest::fake_sleep;
        for (auto& list : scanning().scan_chan_list)
            list.clear();
        eloop_init(0);
        ft_enabled_vaps() = 0;
        for (int r = 0; r < 3; ++r)
            ASSERT_TRUE(create_known_ap_table(r));
        for (auto& told : scanning().db_fault_told)
            told = false;
    }

    static int report() { return process_scan_result(0, "wifi0vap0", 0); }
};
