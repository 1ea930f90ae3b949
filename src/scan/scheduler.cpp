// The per-band chain of scan timers: wait for rogue-AP detection and the
// radio, create the database, one full ACS scan, then a batch scan of the
// learned channels every 1800 s.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "board/board.h"
#include "board/roam_lib.h"
#include "eventloop/eloop.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"

scan_state& scanning()
{
    static scan_state state;  // GCOVR_EXCL_BR_LINE: the compiler's guard of a function-local static
    return state;
}

namespace {

constexpr uint32_t retry_secs = 10;
constexpr uint32_t cac_retry_secs = 60;
constexpr uint32_t rogue_retry_secs = 5;
constexpr uint32_t batch_period_secs = 1800;
constexpr unsigned full_scan_wait_secs = 10;
constexpr unsigned channel_scan_wait_secs = 5;
constexpr int rand_log_line = 1736;

// Everything that differs between the bands: names, handlers and log texts.
// Each text takes the arguments named in its comment.
struct band {
    int radio;
    const char* wlan;
    eloop_timeout_handler rogue_check;
    eloop_timeout_handler start;
    eloop_timeout_handler full_scan;
    eloop_timeout_handler batch_scan;
    int (*create_db)();
    bool checks_cac;
    const char* start_name;
    const char* full_name;
    const char* batch_name;
    const char* rogue_enabled;  // -
    const char* begin;          // handler
    const char* no_vap;         // line, radio name
    int no_vap_line;
    const char* iface;           // VAP name
    const char* voice;           // handler, radio name
    const char* trigger_failed;  // handler, errno, its text
    const char* triggered;       // handler
    const char* results_failed;  // handler, radio name
    const char* not_started;     // rogue status, ft_enabled_vaps, VAP index
    const char* batch_skip;      // handler, radio name, rogue status, ft_enabled_vaps
};

constexpr const char* cac_text = "[dorvand] %s: CAC timer running on the interface %s, holding the scan trigger\n";
constexpr const char* results_stored_text = "[dorvand] %s :parsed scan result succesfully\n";
constexpr const char* channel_count_text = "[dorvand] %s: The total channel count is %d\n";

const band bands[3] = {
    {
        .radio = 0,
        .wlan = "wlan0",
        .rogue_check = rogue_ap_check_2g,
        .start = start_2g_scan_timer,
        .full_scan = trigger_2g_full_scan,
        .batch_scan = trigger_2g_batch_scan,
        .create_db = create_scan_db_2g,
        .checks_cac = false,
        .start_name = "start_2g_scan_timer",
        .full_name = "trigger_2g_full_scan",
        .batch_name = "trigger_2g_batch_scan",
        .rogue_enabled = "[dorvand] Rogue AP enabled for 2.4GHz radio. Starting the scan\n",
        .begin = "[dorvand] %s : 2G Scan begin\n",
        .no_vap = "[dorvand][%d] No active vap found for scan on %s\n",
        .no_vap_line = 2082,
        .iface = "scan iface = %s\n",
        .voice = "[dorvand] %s : Skipping the scan for %s due to voice traffic\n",
        .trigger_failed = "[dorvand] %s : Failed to trigger the scan | %d | %s\n",
        .triggered = "[dorvand] %s : scan success \n",
        .results_failed = "[dorvand] %s : Failed to process the scan result for %s\n",
        .not_started =
            "The Rogue AP status: %d, 11R status: %d, active_vap_idx:%d. Could not start scan on 2.4GHz radio\n",
        .batch_skip = "[dorvand] %s: Skipping the scan for %s [%d:%d]\n",
    },
    {
        .radio = 1,
        .wlan = "wlan1",
        .rogue_check = rogue_ap_check_5gl,
        .start = start_5gl_scan_timer,
        .full_scan = trigger_5gl_full_scan,
        .batch_scan = trigger_5gl_batch_scan,
        .create_db = create_scan_db_5g,
        .checks_cac = true,
        .start_name = "start_5gl_scan_timer",
        .full_name = "trigger_5gl_full_scan",
        .batch_name = "trigger_5gl_batch_scan",
        .rogue_enabled = "[dorvand] Rogue AP enabled for 5GHz radio. Starting the scan\n",
        .begin = "[dorvand] %s : 5G Scan begin \n",
        .no_vap = "[dorvand] [%d] : No active vap found for scan on %s\n",
        .no_vap_line = 2017,
        .iface = "scan iface = %s\n",
        .voice = "[dorvand] %s : Skipping the scan for %s due to voice traffic\n",
        .trigger_failed = "[dorvand] %s :Failed to trigger the scan | %d | %s\n",
        .triggered = "[dorvand] %s :scan success \n",
        .results_failed = "[dorvand] %s :Failed to process the scan result for %s\n",
        .not_started =
            "The Rogue AP status: %d, 11R status: %d, active_vap_idx:%d. Could not start scan on 5GHz radio\n",
        .batch_skip = "[dorvand] %s: Skipping the scan for %s [%d:%d] \n",
    },
    {
        .radio = 2,
        .wlan = "wlan2",
        .rogue_check = rogue_ap_check_5gh,
        .start = start_5gh_scan_timer,
        .full_scan = trigger_5gh_full_scan,
        .batch_scan = trigger_5gh_batch_scan,
        .create_db = create_scan_db_5gh,
        .checks_cac = true,
        .start_name = "start_5gh_scan_timer",
        .full_name = "trigger_5gh_full_scan",
        .batch_name = "trigger_5gh_batch_scan",
        .rogue_enabled = "[dorvand] Rogue AP enabled for 5GHz High radio. Starting the scan\n",
        .begin = "[dorvand] %s :5G high Scan begin \n",
        .no_vap = "[dorvand][%d] No active vap found for scan on %s\n",
        .no_vap_line = 1953,
        .iface = "scan iface = %s \n",
        .voice = "[dorvand] %s :Skipping the scan for %s due to voice traffic\n",
        .trigger_failed = "[dorvand] %s :Failed to trigger the scan | %d | %s\n",
        .triggered = "[dorvand] %s :scan success \n",
        .results_failed = "[dorvand] %s :Failed to process scan result for %s\n",
        .not_started =
            "The Rogue AP status: %d, 11R status: %d, active_vap_idx:%d. Could not start scan on 5GHz High radio\n",
        .batch_skip = "[dorvand] %s: Skipping the scan for %s [%d:%d] \n",
    },
};

// Registers the band's next stage. A band has one pending timer of the
// chain at any time, so any older timer of the same handler goes first.
void schedule(const band& b, eloop_timeout_handler handler, uint32_t secs, intptr_t ctx2)
{
    eloop_cancel_timer(handler, 0, ctx2);
    // GCOVR_EXCL_START: a timer is refused only when memory runs out, which overcommit never lets happen
    if (eloop_add_timer(secs, 0, handler, 0, ctx2) != 0)
        log_msg(1, log_lvl::error, "[dorvand] No timer for the next scan stage of radio %d: its scans stop\n", b.radio);
    // GCOVR_EXCL_STOP
}

void set_marker(int radio)
{
    std::lock_guard<std::timed_mutex> hold(scanning().marker_lock);
    if (scanning().markers_closed)
        return;
    scanning().marker_set[radio] = true;
    touch_marker(paths::scan_db_markers[radio]);
}

void clear_marker(int radio)
{
    std::lock_guard<std::timed_mutex> hold(scanning().marker_lock);
    unlink(paths::scan_db_markers[radio]);
    scanning().marker_set[radio] = false;
}

// The radio a scan handler was registered for; the band's own radio when
// the context holds no valid index.
int radio_of(const band& b, const char* handler, intptr_t ctx2)
{
    if (ctx2 >= 0 && ctx2 <= 2)
        return static_cast<int>(ctx2);
    log_msg(0, log_lvl::error, "[dorvand] %s: bad radio index %ld\n", handler, static_cast<long>(ctx2));
    return b.radio;
}

int ft_status()
{
    return static_cast<int>(ft_enabled_vaps().load());
}

void rogue_check(const band& b)
{
    if (get_rogue_ap_detection(b.wlan) != 0) {
        log_msg(0, log_lvl::info, "%s", b.rogue_enabled);
        b.start(0, 0);
        return;
    }
    schedule(b, b.rogue_check, rogue_retry_secs, 0);
}

void start_band(const band& b)
{
    if (is_radio_up(b.radio) != 0) {
        log_msg(0, log_lvl::error, "The radio wifi%d is down, initiating retry mechanism\n", b.radio);
        schedule(b, b.start, retry_secs, 0);
        return;
    }
    b.create_db();
    set_rand_scan_timer();
    scanning().rand_scan_timer = static_cast<uint16_t>(scanning().rand_scan_timer * 10);
    schedule(b, b.full_scan, scanning().rand_scan_timer, b.radio);
    log_msg(0, log_lvl::info, "[dorvand] %s : %d seconds \n", b.start_name, scanning().rand_scan_timer);
}

// Steps of a full scan up to the trigger; false when the scan must wait,
// with its retry registered. Fills the VAP name.
bool full_scan_ready(const band& b, int radio, const char* radio_name, char (&vap_name)[16])
{
    int vap = find_active_vap(radio_name, radio);
    int rogue = get_rogue_ap_detection(b.wlan);
    if (!((rogue != 0 || ft_status() != 0) && vap != -1)) {
        log_msg(0, log_lvl::info, b.not_started, rogue, ft_status(), vap);
        schedule(b, b.full_scan, retry_secs, radio);
        return false;
    }
    if (vap == VAP_IDX_FALLBACK) {
        log_msg(1, log_lvl::error, b.no_vap, b.no_vap_line, radio_name);
        schedule(b, b.full_scan, retry_secs, radio);
        return false;
    }
    snprintf(vap_name, sizeof vap_name, "wifi%dvap%d", radio, vap);
    log_msg(0, log_lvl::info, b.iface, vap_name);
    // The known-AP table follows the configuration file before every full scan.
    if (ft_status() != 0)
        reload_known_ap_table(radio);
    if (monitor_traffic(radio_name) == VOICE_ACTIVE) {
        log_msg(0, log_lvl::info, b.voice, b.full_name, radio_name);
        schedule(b, b.full_scan, retry_secs, radio);
        return false;
    }
    if (b.checks_cac && get_cac_state(vap_name) == CAC_RUNNING) {
        log_msg(0, log_lvl::info, cac_text, b.full_name, vap_name);
        schedule(b, b.full_scan, cac_retry_secs, radio);
        return false;
    }
    return true;
}

void full_scan(const band& b, intptr_t ctx2)
{
    int radio = radio_of(b, b.full_name, ctx2);
    log_msg(0, log_lvl::info, b.begin, b.full_name);
    char radio_name[8];
    snprintf(radio_name, sizeof radio_name, "wifi%d", radio);
    char vap_name[16];
    if (!full_scan_ready(b, radio, radio_name, vap_name))
        return;
    set_chanlist(vap_name);
    if (trigger_acs_scan(vap_name) == -1) {
        int err = errno;
        log_msg(1, log_lvl::error, b.trigger_failed, b.full_name, err, strerror(err));
        schedule(b, b.full_scan, retry_secs, radio);
        return;
    }
    log_msg(0, log_lvl::info, b.triggered, b.full_name);
    set_marker(b.radio);
    scan_sleep(full_scan_wait_secs);
    if (process_scan_result(radio, vap_name, 0) != -1) {
        log_msg(0, log_lvl::info, results_stored_text, b.full_name);
        get_channel_info(vap_name);
        schedule(b, b.batch_scan, batch_period_secs, radio);
    } else {
        log_msg(1, log_lvl::error, b.results_failed, b.full_name, radio_name);
        schedule(b, b.full_scan, retry_secs, radio);
    }
    clear_marker(b.radio);
}

// The batch scan's conditions, in the band's order; false when one fails.
bool batch_scan_allowed(const band& b, const char* radio_name, int vap)
{
    if (get_rogue_ap_detection(b.wlan) == 0 && ft_status() == 0)
        return false;
    if (b.checks_cac) {
        return monitor_traffic(radio_name) != VOICE_ACTIVE && vap != -1 && vap != VAP_IDX_FALLBACK;
    }
    return vap != -1 && vap != VAP_IDX_FALLBACK && monitor_traffic(radio_name) != VOICE_ACTIVE;
}

void batch_scan(const band& b, intptr_t ctx2)
{
    int radio = radio_of(b, b.batch_name, ctx2);
    char radio_name[8];
    snprintf(radio_name, sizeof radio_name, "wifi%d", radio);
    int vap = find_active_vap(radio_name, radio);
    if (!batch_scan_allowed(b, radio_name, vap)) {
        log_msg(0, log_lvl::info, b.batch_skip, b.batch_name, radio_name, get_rogue_ap_detection(b.wlan), ft_status());
        schedule(b, b.batch_scan, retry_secs, radio);
        return;
    }
    if (b.checks_cac) {
        char vap_name[16];
        snprintf(vap_name, sizeof vap_name, "wifi%dvap%d", radio, vap);
        if (get_cac_state(vap_name) == CAC_RUNNING) {
            log_msg(0, log_lvl::info, cac_text, b.batch_name, vap_name);
            schedule(b, b.batch_scan, cac_retry_secs, radio);
            return;
        }
    }
    set_marker(b.radio);
    const growable_array<int32_t>& channels = scanning().scan_chan_list[radio];
    log_msg(0, log_lvl::info, channel_count_text, b.batch_name, static_cast<int>(channels.size()));
    // Indexing, not iterators: nothing may grow the list meanwhile, but an
    // index stays valid even if something did.
    for (size_t i = 0; i < channels.size(); ++i) {
        int32_t channel = channels[i];
        trigger_batch_scan(radio, channel);
        scan_sleep(channel_scan_wait_secs);
        process_scan_result(radio, radio_name, channel);
    }
    clear_marker(b.radio);
    schedule(b, b.batch_scan, batch_period_secs, radio);
}

}  // namespace

void start_rogue_checks()
{
    rogue_ap_check_2g(0, 0);
    rogue_ap_check_5gl(0, 0);
    if (board().radio_type_val == 1)
        rogue_ap_check_5gh(0, 0);
}

void set_rand_scan_timer()
{
    srand(static_cast<unsigned>(time(nullptr)));
    scanning().rand_scan_timer = static_cast<uint16_t>(rand() % 25 + 6);
    log_msg(0, log_lvl::info, "**** %d : rand_scan_timer: %d seconds ****\n", rand_log_line,
            scanning().rand_scan_timer * 10);
}

void rogue_ap_check_2g(intptr_t, intptr_t)
{
    rogue_check(bands[0]);
}

void rogue_ap_check_5gl(intptr_t, intptr_t)
{
    rogue_check(bands[1]);
}

void rogue_ap_check_5gh(intptr_t, intptr_t)
{
    rogue_check(bands[2]);
}

void start_2g_scan_timer(intptr_t, intptr_t)
{
    start_band(bands[0]);
}

void start_5gl_scan_timer(intptr_t, intptr_t)
{
    start_band(bands[1]);
}

void start_5gh_scan_timer(intptr_t, intptr_t)
{
    start_band(bands[2]);
}

void trigger_2g_full_scan(intptr_t, intptr_t ctx2)
{
    full_scan(bands[0], ctx2);
}

void trigger_5gl_full_scan(intptr_t, intptr_t ctx2)
{
    full_scan(bands[1], ctx2);
}

void trigger_5gh_full_scan(intptr_t, intptr_t ctx2)
{
    full_scan(bands[2], ctx2);
}

void trigger_2g_batch_scan(intptr_t, intptr_t ctx2)
{
    batch_scan(bands[0], ctx2);
}

void trigger_5gl_batch_scan(intptr_t, intptr_t ctx2)
{
    batch_scan(bands[1], ctx2);
}

void trigger_5gh_batch_scan(intptr_t, intptr_t ctx2)
{
    batch_scan(bands[2], ctx2);
}

namespace {
void (*startup_work)() = nullptr;

void log_cancelled(int line, int count)
{
    log_msg(0, log_lvl::info, " %d Number of eloop cancelled timeouts:%d \n", line, count);
}
}  // namespace

void set_scan_startup_work(void (*work)())
{
    startup_work = work;
}

void start_scan_scheduler(intptr_t, intptr_t)
{
    if (startup_work)
        startup_work();
    start_rogue_checks();
}

void stop_scan_scheduler()
{
    log_cancelled(__LINE__, eloop_cancel_timer(rogue_ap_check_2g, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(start_2g_scan_timer, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(trigger_2g_full_scan, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(trigger_2g_batch_scan, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(rogue_ap_check_5gl, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(start_5gl_scan_timer, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(trigger_5gl_full_scan, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(trigger_5gl_batch_scan, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(rogue_ap_check_5gh, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(start_5gh_scan_timer, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(trigger_5gh_full_scan, 0, ELOOP_ANY_CTX));
    log_cancelled(__LINE__, eloop_cancel_timer(trigger_5gh_batch_scan, 0, ELOOP_ANY_CTX));
}

void remove_scan_markers()
{
    // The lock is held only around one file operation; the bound is for a
    // thread stuck in one, whose marker is then removed all the same.
    std::unique_lock<std::timed_mutex> hold(scanning().marker_lock, std::chrono::seconds(2));
    if (hold.owns_lock())
        scanning().markers_closed = true;
    for (int radio = 0; radio < 3; ++radio) {
        if (scanning().marker_set[radio])
            unlink(paths::scan_db_markers[radio]);
    }
}

void remove_stale_scan_markers()
{
    for (const char* marker : paths::scan_db_markers) {
        struct stat st {};
        if (lstat(marker, &st) == 0 && S_ISREG(st.st_mode) && unlink(marker) == 0)
            log_msg(1, log_lvl::error, "[dorvand] Removed %s left by an earlier run\n", marker);
    }
}
