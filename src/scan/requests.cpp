// Builders of the driver request blocks, the request socket, and the seams
// through which the module reaches the driver and sleeps.
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "scan/scan_internal.h"

namespace {

int libc_ioctl(int fd, unsigned long request, void* arg)
{
    return ::ioctl(fd, request, arg);
}

unsigned libc_sleep(unsigned seconds)
{
    return ::sleep(seconds);
}

// Zero every byte, padding included: the whole block goes to the driver.
template <typename T> void zero_block(T& block)
{
    memset(&block, 0, sizeof block);
}

}  // namespace

driver_ioctl_fn driver_ioctl = libc_ioctl;
scan_sleep_fn scan_sleep = libc_sleep;

unique_fd open_request_socket()
{
    return unique_fd(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
}

void copy_ifname(char (&dst)[16], const char* src)
{
    size_t len = strnlen(src, sizeof dst);
    memset(dst, 0, sizeof dst);
    memcpy(dst, src, len);
}

void fill_acs_scan_request(drv_param_req& req, const char* vap_name)
{
    zero_block(req);
    copy_ifname(req.name, vap_name);
    req.param = PARAM_ACS_SCAN;
    req.value = ACS_SCAN_START_VALUE;
}

void fill_cac_state_request(drv_param_req& req, const char* vap_name)
{
    zero_block(req);
    // Formatted with a bound of 16, so the name always ends in a NUL.
    snprintf(req.name, sizeof req.name, "%s", vap_name);
    req.param = PARAM_CAC_STATE;
}

void fill_chan_scan_block(drv_chan_scan& block, int channel)
{
    zero_block(block);
    static_assert(sizeof block.word == sizeof CHAN_SCAN_WORDS);
    memcpy(block.word, CHAN_SCAN_WORDS, sizeof block.word);
    block.flag[0] = 1;
    block.flag[1] = 1;
    block.channel = static_cast<uint8_t>(channel & 0xff);
}

void fill_acs_report_request(drv_iwreq& req, drv_debug_block& block, acs_report& report, const char* ifname)
{
    zero_block(req);
    zero_block(block);
    zero_block(report);
    copy_ifname(req.name, ifname);
    req.u.data.pointer = &block;
    req.u.data.length = DRV_DEBUG_BLOCK_LEN;
    block.cmd = DBG_CMD_ACS_REPORT;
    block.zero = 0;
    block.report_length = ACS_REPORT_LEN;
    block.report = &report;
    set_neighbour_buffer(report, nullptr, 0);
    report.wanted = 0;
}

void set_neighbour_buffer(acs_report& report, acs_neighbour* buffer, size_t entries)
{
    report.nbr = {};
    report.nbr.pointer = buffer;
    report.nbr_length = buffer ? static_cast<uint32_t>(entries * ACS_NEIGHBOUR_LEN) : 0;
}

void want_report_entry(drv_debug_block& block, acs_report& report, uint8_t index)
{
    report.wanted = index;
    block.cmd = DBG_CMD_ACS_REPORT;
}

bool needs_larger_neighbour_buffer(int result, uint8_t chan_nbss)
{
    constexpr int result_buffer_too_small = 7;
    return result == result_buffer_too_small || chan_nbss > ACS_NEIGHBOURS_FIRST;
}
