// The simulated wireless driver: answers the daemon's private requests from
// the state file and logs every driver request. Interface flags stay the
// kernel's (the sandbox's interfaces are real links that go up and down).
#include "scan/driver.h"

#include <fcntl.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <mutex>
#include <new>

#include "../faults/fault_core.h"
#include "driver_state.h"
#include "preload.h"

using namespace dorvsim;

namespace {

// The driver's request, parameter and command numbers as the driver defines
// them. They are written out here rather than taken from the daemon's header
// (which gives only the block layouts), so that a wrong number on the
// daemon's side shows as a request the simulated driver does not answer.
namespace wire {
constexpr unsigned long drv_siocgifflags = 0x8913;
constexpr unsigned long drv_req_param_set = 0x8BE0;
constexpr unsigned long drv_req_param_get = 0x8BE1;
constexpr unsigned long drv_req_chan_info = 0x8BE7;
constexpr unsigned long drv_req_debug = 0x8BF8;
constexpr unsigned long drv_req_ext_cmd = 0x89F8;
constexpr int32_t param_cac_state = 310;
constexpr int32_t param_acs_scan = 318;
constexpr uint32_t ext_cmd_chan_scan = 6;
constexpr uint32_t ext_cmd_voice_stats = 23;
constexpr uint8_t dbg_cmd_acs_report = 20;
constexpr uint16_t drv_iff_up = 0x1;
}  // namespace wire

constexpr size_t max_state_bytes = 4 << 20;

std::atomic<void*> real_ioctl_slot{nullptr};

int real_ioctl(int fd, unsigned long request, void* arg)
{
    using fn = int (*)(int, unsigned long, ...);
    fn f = next_fn<fn>(real_ioctl_slot, "ioctl");
    if (!f) {
        errno = ENOSYS;
        return -1;
    }
    return f(fd, request, arg);
}

// The state file as last loaded; reloaded whenever the file is replaced.
struct loaded_state {
    bool loaded = false;
    bool valid = false;
    ino_t ino = 0;
    struct timespec mtime {};
    off_t size = -1;
    driver_state st;
    int report_requests[sim_radios] = {};
};

std::mutex state_lock;
loaded_state current;

bool read_file(const char* path, std::string& out)
{
    dorvfault::core::passthrough quiet;  // the simulator's own reading, never failed
    int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    char buf[8192];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0 && out.size() <= max_state_bytes)
        out.append(buf, static_cast<size_t>(n));
    close(fd);
    return n == 0 && out.size() <= max_state_bytes;
}

// Caller holds state_lock.
void refresh_state()
{
    if (!config.state_path[0]) {
        if (!current.loaded) {
            current.loaded = current.valid = true;  // no file: every request succeeds, nothing to report
        }
        return;
    }
    struct stat sb {};
    if (stat(config.state_path, &sb) != 0) {
        if (!current.loaded || current.valid)
            warn("cannot read state file %s (%s)", config.state_path, strerror(errno));
        current.loaded = true;
        current.valid = false;
        current.size = -1;
        return;
    }
    if (current.loaded && current.size == sb.st_size && current.ino == sb.st_ino &&
        current.mtime.tv_sec == sb.st_mtim.tv_sec && current.mtime.tv_nsec == sb.st_mtim.tv_nsec)
        return;
    current.loaded = true;
    current.ino = sb.st_ino;
    current.mtime = sb.st_mtim;
    current.size = sb.st_size;
    std::fill(std::begin(current.report_requests), std::end(current.report_requests), 0);
    std::string text;
    std::string error;
    if (!read_file(config.state_path, text)) {
        warn("cannot read state file %s", config.state_path);
        current.valid = false;
    } else if (!parse_driver_state(text, current.st, error)) {
        warn("state file %s: %s", config.state_path, error.c_str());
        current.valid = false;
    } else {
        current.valid = true;
        reqlog("req=state_loaded bytes=%zu", text.size());
    }
}

// The interface name of a request, always terminated and printable.
struct if_name {
    char text[IFNAMSIZ] = {};
};

if_name name_of(const void* req)
{
    if_name n;
    memcpy(n.text, req, IFNAMSIZ - 1);
    for (char& c : n.text) {
        if (c != '\0' && !isgraph(static_cast<unsigned char>(c)))
            c = '?';
    }
    return n;
}

// wifiN, wifiNvapM and athN belong to radio N; -1 for any other name.
int radio_of(const char* name)
{
    auto digits_from = [](const char* p) {
        if (!isdigit(static_cast<unsigned char>(*p)))
            return false;
        while (isdigit(static_cast<unsigned char>(*p)))
            ++p;
        return *p == '\0';
    };
    int radio = -1;
    if (strncmp(name, "wifi", 4) == 0 && isdigit(static_cast<unsigned char>(name[4])) &&
        (name[5] == '\0' || (strncmp(name + 5, "vap", 3) == 0 && digits_from(name + 8))))
        radio = name[4] - '0';
    else if (strncmp(name, "ath", 3) == 0 && digits_from(name + 3))
        radio = atoi(name + 3);
    return radio >= 0 && radio < sim_radios ? radio : -1;
}

int fail(int err)
{
    errno = err;
    return -1;
}

int fail_with(const outcome& o)
{
    return o.ok ? 0 : fail(o.err);
}

const char* errno_text(int rc, int err, char (&buf)[32])
{
    buf[0] = '\0';
    if (rc < 0)
        snprintf(buf, sizeof buf, " errno=%d", err);
    return buf;
}

// ---- Answers; each returns the request's result with errno set ------------

int answer_param_set(const char* name, int radio, drv_param_req* req)
{
    char e[32];
    if (req->param != wire::param_acs_scan) {
        reqlog("req=param_set if=%s param=%d value=%d rc=-1 errno=%d", name, req->param, req->value, EOPNOTSUPP);
        return fail(EOPNOTSUPP);
    }
    int rc = fail_with(current.st.radio[radio].acs_start);
    int err = errno;
    reqlog("req=acs_start if=%s param=%d value=%d rc=%d%s", name, req->param, req->value, rc, errno_text(rc, err, e));
    errno = err;
    return rc;
}

int answer_param_get(const char* name, drv_param_req* req)
{
    char e[32];
    if (req->param != wire::param_cac_state) {
        reqlog("req=param_get if=%s param=%d rc=-1 errno=%d", name, req->param, EOPNOTSUPP);
        return fail(EOPNOTSUPP);
    }
    sim_cac found;
    for (const auto& c : current.st.cac) {
        if (c.ifname == name)
            found = c;
    }
    int rc = fail_with(found.result);
    int err = errno;
    if (rc == 0)
        req->param = found.value;
    reqlog("req=cac if=%s param=%d rc=%d value=%d%s", name, wire::param_cac_state, rc, found.value,
           errno_text(rc, err, e));
    errno = err;
    return rc;
}

int answer_chan_info(const char* name, int radio, drv_iwreq* req)
{
    const sim_radio& r = current.st.radio[radio];
    std::vector<uint8_t> list = r.chan_info_list;
    if (!r.chan_info_given) {
        list.clear();
        for (const auto& ch : r.channels)
            list.push_back(ch.ieee_chan);
    }
    size_t length = req->u.data.length;
    int rc = fail_with(r.chan_info);
    if (rc == 0 && !req->u.data.pointer)
        rc = fail(EFAULT);
    else if (rc == 0 && length < 4 + list.size() * sizeof(drv_chan_record))
        rc = fail(E2BIG);
    int err = errno;
    if (rc == 0) {
        auto* out = static_cast<uint8_t*>(req->u.data.pointer);
        memset(out, 0, std::min(length, sizeof(drv_chan_info)));
        out[0] = static_cast<uint8_t>(list.size());
        for (size_t i = 0; i < list.size(); ++i) {
            drv_chan_record rec{};
            rec.ieee_chan = list[i];
            memcpy(out + 4 + i * sizeof rec, &rec, sizeof rec);
        }
    }
    char e[32];
    reqlog("req=chan_info if=%s len=%zu rc=%d count=%zu%s", name, length, rc, rc == 0 ? list.size() : 0,
           errno_text(rc, err, e));
    errno = err;
    return rc;
}

// The report buffer of a debug request; null, with errno set and the
// refusal logged, when the request is not a well-formed ACS report request.
acs_report* report_of(const char* name, const drv_iwreq* req)
{
    auto* blk = static_cast<drv_debug_block*>(req->u.data.pointer);
    int err = 0;
    if (!blk || req->u.data.length < offsetof(drv_debug_block, report) + sizeof blk->report)
        err = EINVAL;
    else if (blk->cmd != wire::dbg_cmd_acs_report)
        err = EOPNOTSUPP;
    else if (!blk->report || blk->report_length < offsetof(acs_report, chan_rank) + sizeof blk->report->chan_rank)
        err = EINVAL;
    if (err == 0)
        return blk->report;
    reqlog("req=debug if=%s cmd=%u rc=-1 errno=%d", name, blk ? blk->cmd : 0u, err);
    errno = err;
    return nullptr;
}

int answer_report(const char* name, int radio, drv_iwreq* req)
{
    acs_report* rep = report_of(name, req);
    if (!rep)
        return -1;
    const sim_radio& r = current.st.radio[radio];
    int nth = ++current.report_requests[radio];
    unsigned wanted = rep->wanted;
    uint32_t nbr_len = rep->nbr.pointer ? rep->nbr_length : 0;
    int rc = fail_with(r.report);
    if (rc == 0 && nth == r.report_fail_at)
        rc = fail(r.report_fail_err);
    if (rc != 0) {
        int err = errno;
        reqlog("req=acs_report if=%s n=%d wanted=%u nbr_len=%u rc=-1 errno=%d", name, nth, wanted, nbr_len, err);
        return fail(err);
    }
    acs_answer a = acs_answer_request(r.channels, *rep, r.overflow_rc7);
    if (a.past_end) {
        reqlog("req=acs_report if=%s n=%d wanted=%u nbr_len=%u rc=0 count=%zu past_end=1", name, nth, wanted, nbr_len,
               r.channels.size());
        return 0;
    }
    const acs_channel& ch = r.channels[wanted];
    reqlog("req=acs_report if=%s n=%d wanted=%u nbr_len=%u rc=%d count=%zu chan=%u nbss=%zu filled=%zu", name, nth,
           wanted, nbr_len, a.rc, r.channels.size(), ch.ieee_chan, ch.neighbours.size(), a.filled);
    return a.rc;
}

int answer_ext_cmd(const char* name, int radio, drv_ifreq* req)
{
    auto* cmd = static_cast<drv_ext_cmd*>(req->u.data);
    if (!cmd)
        return fail(EFAULT);
    const sim_radio& r = current.st.radio[radio];
    char e[32];
    if (cmd->cmd == wire::ext_cmd_voice_stats) {
        if (!cmd->data || cmd->length < sizeof(drv_voice_stats))
            return fail(EINVAL);
        int rc = fail_with(r.voice);
        int err = errno;
        if (rc == 0) {
            auto* vs = static_cast<drv_voice_stats*>(cmd->data);
            vs->prev_voice_pkts = r.prev_voice_pkts;
            vs->cur_voice_pkts = r.cur_voice_pkts;
            vs->voice_bit = r.voice_bit;
        }
        reqlog("req=voice if=%s len=%u rc=%d bit=%u prev=%llu cur=%llu%s", name, cmd->length, rc, r.voice_bit,
               static_cast<unsigned long long>(r.prev_voice_pkts), static_cast<unsigned long long>(r.cur_voice_pkts),
               errno_text(rc, err, e));
        errno = err;
        return rc;
    }
    if (cmd->cmd == wire::ext_cmd_chan_scan) {
        if (!cmd->data || cmd->length < sizeof(drv_chan_scan))
            return fail(EINVAL);
        drv_chan_scan blk{};
        memcpy(&blk, cmd->data, sizeof blk);
        int rc = fail_with(r.chan_scan);
        int err = errno;
        reqlog("req=chan_scan if=%s len=%u chan=%u words=%u,%u,%u,%u,%u flags=%u,%u rc=%d%s", name, cmd->length,
               blk.channel, blk.word[0], blk.word[1], blk.word[2], blk.word[3], blk.word[4], blk.flag[0], blk.flag[1],
               rc, errno_text(rc, err, e));
        errno = err;
        return rc;
    }
    reqlog("req=ext_cmd if=%s cmd=%u rc=-1 errno=%d", name, cmd->cmd, EOPNOTSUPP);
    return fail(EOPNOTSUPP);
}

bool is_private(unsigned long request)
{
    return request == wire::drv_req_param_set || request == wire::drv_req_param_get ||
           request == wire::drv_req_chan_info || request == wire::drv_req_debug || request == wire::drv_req_ext_cmd;
}

// The kernel decides whether the interface exists, as it would for the
// real driver; the answer's errno is then the kernel's.
int check_interface(int fd, const char* name)
{
    struct ifreq probe {};
    memcpy(probe.ifr_name, name, IFNAMSIZ - 1);
    return real_ioctl(fd, SIOCGIFFLAGS, &probe);
}

int answer_private(int fd, unsigned long request, void* arg)
{
    if (!arg)
        return fail(EFAULT);
    if_name name = name_of(arg);
    if (check_interface(fd, name.text) != 0) {
        int err = errno;
        reqlog("req=0x%lX if=%s rc=-1 errno=%d", request, name.text, err);
        return fail(err);
    }
    int radio = radio_of(name.text);
    std::lock_guard<std::mutex> hold(state_lock);
    refresh_state();
    if (radio < 0 || !current.valid) {
        int err = radio < 0 ? EOPNOTSUPP : EIO;
        reqlog("req=0x%lX if=%s rc=-1 errno=%d", request, name.text, err);
        return fail(err);
    }
    switch (request) {
    case wire::drv_req_param_set:
        return answer_param_set(name.text, radio, static_cast<drv_param_req*>(arg));
    case wire::drv_req_param_get:
        return answer_param_get(name.text, static_cast<drv_param_req*>(arg));
    case wire::drv_req_chan_info:
        return answer_chan_info(name.text, radio, static_cast<drv_iwreq*>(arg));
    case wire::drv_req_debug:
        return answer_report(name.text, radio, static_cast<drv_iwreq*>(arg));
    default:
        return answer_ext_cmd(name.text, radio, static_cast<drv_ifreq*>(arg));
    }
}

int interface_flags(int fd, void* arg)
{
    int rc = real_ioctl(fd, SIOCGIFFLAGS, arg);
    int err = errno;
    if (arg) {
        if_name name = name_of(arg);
        const auto* req = static_cast<const drv_ifreq*>(arg);
        if (rc == 0)
            reqlog("req=flags if=%s rc=0 up=%d", name.text, (req->u.flags & wire::drv_iff_up) ? 1 : 0);
        else
            reqlog("req=flags if=%s rc=%d errno=%d", name.text, rc, err);
    }
    errno = err;
    return rc;
}

}  // namespace

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list ap;
    va_start(ap, request);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (!config.active)
        return real_ioctl(fd, request, arg);
    if (request == wire::drv_siocgifflags)
        return interface_flags(fd, arg);
    if (!is_private(request))
        return real_ioctl(fd, request, arg);
    try {
        return answer_private(fd, request, arg);
    } catch (const std::exception& e) {
        // Never let the simulator take the daemon down.
        warn("request 0x%lX: %s", request, e.what());
        return fail(EIO);
    }
}
