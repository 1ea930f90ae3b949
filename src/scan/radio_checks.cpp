// Checks run against the driver around every scan: radio and VAP up state,
// CAC state, voice traffic, the scan channel list reset and the radio's
// channel list.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "base/log.h"
#include "base/paths.h"
#include "base/spawn.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"

namespace {

constexpr int cac_socket_line = 1546;
constexpr int cac_ioctl_line = 1557;
constexpr int vap_count = 10;

// SIOCGIFFLAGS for `name`: the request's result, with the flags in `flags`.
int query_flags(int fd, const char* name, int16_t& flags)
{
    drv_ifreq req{};
    copy_ifname(req.name, name);
    int rc = driver_ioctl(fd, DRV_SIOCGIFFLAGS, &req);
    flags = req.u.flags;
    return rc;
}

bool is_up(int16_t flags)
{
    return (static_cast<uint16_t>(flags) & DRV_IFF_UP) != 0;
}

void log_socket_failure(int to_syslog)
{
    int err = errno;
    log_msg(to_syslog, log_lvl::error, "Failed to open socket [%d|%s] \n", err, strerror(err));
}

// Logs a shell command that could not be run at all.
void check_command_ran(int status)
{
    if (status == -1) {
        int err = errno;
        log_msg(0, log_lvl::error, "Failed to run command [%d|%s]\n", err, strerror(err));
    }
}

// None of the ten VAPs is up: query athN and bring it up when it is down.
// Returns VAP_IDX_FALLBACK, or -1 when the query failed.
int try_fallback_vap(int fd, int radio)
{
    log_msg(0, log_lvl::info, "No active vap found ..! Lets trigger \t\t\t\tscan on ATH%d \n", radio);
    char name[16];
    snprintf(name, sizeof name, "ath%d", radio);
    log_msg(0, log_lvl::info, "ifname = %s \n", name);
    int16_t flags = 0;
    if (query_flags(fd, name, flags) < 0) {
        int err = errno;
        log_msg(1, log_lvl::error, "Failed to check vap status [%d|%s] \n", err, strerror(err));
        return -1;
    }
    if (is_up(flags)) {
        log_msg(0, log_lvl::info, "Active vap found [%s]\n ", name);
    } else {
        log_msg(0, log_lvl::info, "ath interface is not up [%s] \n", name);
        check_command_ran(shell_run(64, "ifconfig %s up", name));
    }
    return VAP_IDX_FALLBACK;
}

// Appends the channel records of a channel-information reply to the list
// of the radio that ifname's first five characters name.
int append_channels(const drv_chan_info& reply, const char* ifname)
{
    static const char* const radio_names[3] = {"wifi0", "wifi1", "wifi2"};
    static const char* const no_memory_texts[3] = {"Memory allocation failed for 2.4GHz channel buffer\n",
                                                   "Memory allocation failed for 5GHz channel buffer\n",
                                                   "Memory allocation failed for 5GHz High channel buffer\n"};
    static const char* const channel_texts[3] = {"The 2.4GHz channel is %d\n", "The 5GHz channel is %d\n",
                                                 "The 5GHz High channel is %d\n"};
    int radio = -1;
    for (int r = 0; r < 3 && radio < 0; ++r) {
        if (strncmp(ifname, radio_names[r], 5) == 0)
            radio = r;
    }
    if (radio < 0)  // GCOVR_EXCL_BR_LINE: the full scan asks with its VAP's name, wifiNvapM
        return 0;   // GCOVR_EXCL_LINE: as above
    growable_array<int32_t>& list = scanning().scan_chan_list[radio];
    for (unsigned i = 0; i < reply.count; ++i) {
        int32_t channel = reply.record[i].ieee_chan;
        // A failed growth keeps every stored entry.
        // GCOVR_EXCL_START: at most 255 channels: a small nothrow allocation, never refused under overcommit
        if (!list.push_back(channel)) {
            log_msg(0, log_lvl::error, "%s", no_memory_texts[radio]);
            return -1;
        }
        // GCOVR_EXCL_STOP
        log_msg(0, log_lvl::info, channel_texts[radio], channel);
    }
    return 0;
}

}  // namespace

int is_radio_up(int radio)
{
    unique_fd fd = open_request_socket();
    if (!fd.valid()) {
        log_socket_failure(1);
        return -1;
    }
    char name[6];
    snprintf(name, sizeof name, "wifi%d", radio);
    int16_t flags = 0;
    if (query_flags(fd.get(), name, flags) < 0) {
        int err = errno;
        log_msg(1, log_lvl::error, "Failed to check radio status [%d|%s] \n", err, strerror(err));
        return -1;
    }
    if (is_up(flags)) {
        log_msg(0, log_lvl::info, "Active radio found %s \n", name);
        return 0;
    }
    log_msg(0, log_lvl::info, "No Active radio found %s \n", name);
    return -1;
}

int find_active_vap(const char* radio_name, int radio)
{
    unique_fd fd = open_request_socket();
    if (!fd.valid()) {
        log_socket_failure(1);
        return -1;
    }
    if (is_radio_up(radio) == -1)
        return -1;
    for (int m = 0; m < vap_count; ++m) {
        char name[16];
        snprintf(name, sizeof name, "%s%s%d", radio_name, "vap", m);
        log_msg(0, log_lvl::info, "ifname = %s \n", name);
        int16_t flags = 0;
        if (query_flags(fd.get(), name, flags) < 0) {
            int err = errno;
            log_msg(1, log_lvl::error, "Failed to check vap status [%d|%s] \n", err, strerror(err));
            return -1;
        }
        if (is_up(flags)) {
            log_msg(0, log_lvl::info, "Active vap found [%s] ", name);
            return m;
        }
    }
    return try_fallback_vap(fd.get(), radio);
}

int get_cac_state(const char* vap_name)
{
    unique_fd fd = open_request_socket();
    if (!fd.valid()) {
        log_msg(0, log_lvl::error, "%s:%d Socket creation failed ", "get_cac_state", cac_socket_line);
        return -1;
    }
    drv_param_req req{};
    fill_cac_state_request(req, vap_name);
    if (driver_ioctl(fd.get(), DRV_REQ_PARAM_GET, &req) != 0) {
        log_msg(0, log_lvl::error, "%s:%d Ioctl failed ", "get_cac_state", cac_ioctl_line);
        return -1;
    }
    return req.param;
}

void set_chanlist(const char* vap_name)
{
    // A 256-byte buffer formatted with a bound of 255.
    check_command_ran(shell_run(255, "%s %s setchanlist 0", paths::wifitool, vap_name));
}

int monitor_traffic(const char* ifname)
{
    drv_ext_cmd cmd{};
    drv_voice_stats stats{};
    drv_ifreq req{};
    unique_fd fd = open_request_socket();
    if (!fd.valid()) {
        log_msg(0, log_lvl::info, "[%s] Error occurs while creating socket\n", "monitor_traffic");
        return -1;
    }
    copy_ifname(req.name, ifname);
    cmd.cmd = EXT_CMD_VOICE_STATS;
    cmd.data = &stats;
    cmd.length = DRV_VOICE_STATS_LEN;
    req.u.data = &cmd;
    if (driver_ioctl(fd.get(), DRV_REQ_EXT_CMD, &req) < 0) {
        log_msg(0, log_lvl::info, "%s: ioctl failed\n", "monitor_traffic");
        return -1;
    }
    log_msg(0, log_lvl::info, "[%s] voice-pkts : [%llu] prev-voice-pkts : [%llu], voice-bit : [%u] \n",
            "monitor_traffic", static_cast<unsigned long long>(stats.cur_voice_pkts),
            static_cast<unsigned long long>(stats.prev_voice_pkts), static_cast<unsigned>(stats.voice_bit));
    if (stats.voice_bit != 0) {
        log_msg(0, log_lvl::info, "Observed active voice traffic on %s radio\n", ifname);
        return VOICE_ACTIVE;
    }
    return 0;
}

int get_channel_info(const char* ifname)
{
    unique_fd fd = open_request_socket();
    if (!fd.valid())
        log_socket_failure(0);
    std::unique_ptr<drv_chan_info> reply(new (std::nothrow) drv_chan_info{});
    drv_iwreq req{};
    copy_ifname(req.name, ifname);
    if (reply) {  // GCOVR_EXCL_BR_LINE: a small nothrow allocation, never refused under overcommit
        req.u.data.pointer = reply.get();
        req.u.data.length = DRV_CHAN_INFO_LEN;
    }
    // Without a socket or a reply buffer the request cannot succeed.
    if (!fd.valid() || !reply || driver_ioctl(fd.get(), DRV_REQ_CHAN_INFO, &req) < 0) {
        log_msg(0, log_lvl::error, "Failed to access the channel info IOCTL\n");
        return -1;
    }
    return append_channels(*reply, ifname);
}
