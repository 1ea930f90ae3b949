// CPU cost of scan ingestion against its floor (ingest_floor.h): the daemon's
// process_scan_result stores one report of 2,000 BSSs on eight channels, read
// from a stand-in driver, and the floor stores the same report. Rounds
// alternate the two (and which goes first); each round measures inserts (no
// database yet) and updates (every row already there). Prints the median
// ratio of the process CPU time over the rounds, and fails when the two
// wrote different log bytes or rows.
//
// Usage: bench_ingest [ROUNDS [daemon|floor]] (default 7 rounds; naming a
// side runs that side alone, inserts and updates, and prints the rows it
// stored). Runs in a private mount
// namespace with its own /tmp and /var (as root), like the unit tests.
#include <fcntl.h>
#include <sched.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "base/log.h"
#include "base/paths.h"
#include "board/roam_lib.h"
#include "ingest_floor.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"

namespace {

constexpr int channels[8] = {1, 2, 3, 4, 5, 6, 7, 8};
constexpr int bss_per_channel = 250;
const char* const floor_db = "/tmp/floor_db";
const char* const floor_log = "/tmp/floor_log";

std::vector<floor_channel> report;

std::vector<floor_channel> make_report()
{
    std::vector<floor_channel> out;
    for (int ch : channels) {
        floor_channel c{};
        c.stats.ieee_chan = static_cast<uint8_t>(ch);
        c.stats.chan_nbss = bss_per_channel;
        c.stats.max_rssi = -40;
        c.stats.min_rssi = -90;
        c.stats.noise_floor = -95;
        c.stats.chan_load = 20;
        for (int j = 0; j < bss_per_channel; ++j) {
            acs_neighbour n{};
            const uint8_t mac[6] = {0x06, 0x00, static_cast<uint8_t>(ch), static_cast<uint8_t>(j), 0x00, 0x00};
            memcpy(n.bssid, mac, 6);
            snprintf(n.ssid, sizeof n.ssid, "net-%d-%d", ch, j);
            n.rssi = -70 + j % 20;
            n.phymode = 7;
            c.bss.push_back(n);
        }
        out.push_back(c);
    }
    return out;
}

// The driver's side of the debug request: entry `wanted` of the report,
// with as many neighbours as the daemon's buffer holds.
int report_ioctl(int, unsigned long request, void* arg)
{
    if (request != DRV_REQ_DEBUG) {
        errno = ENOTTY;
        return -1;
    }
    auto* block = static_cast<drv_debug_block*>(static_cast<drv_iwreq*>(arg)->u.data.pointer);
    acs_report& r = *block->report;
    r.count = static_cast<uint8_t>(report.size());
    if (r.wanted >= report.size())
        return 0;
    const floor_channel& c = report[r.wanted];
    acs_neighbour* buffer = r.nbr.pointer;
    uint32_t room = r.nbr_length;
    r.ieee_chan = c.stats.ieee_chan;
    r.chan_nbss = c.stats.chan_nbss;
    r.max_rssi = c.stats.max_rssi;
    r.min_rssi = c.stats.min_rssi;
    r.noise_floor = c.stats.noise_floor;
    r.chan_load = c.stats.chan_load;
    for (size_t i = 0; buffer && i < room / sizeof(acs_neighbour) && i < c.bss.size(); ++i)
        buffer[i] = c.bss[i];
    return 0;
}

double cpu_seconds()
{
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

void remove_files(const char* base)
{
    for (const char* suffix : {"", ".0", ".1", "-journal"})
        unlink((std::string(base) + suffix).c_str());
}

// Bytes of a log and its backups.
long log_bytes(const char* base)
{
    long total = 0;
    for (const char* suffix : {"", ".0", ".1"}) {
        struct stat st {};
        if (stat((std::string(base) + suffix).c_str(), &st) == 0)
            total += st.st_size;
    }
    return total;
}

int row_count(const char* db_path)
{
    sqlite3* db = nullptr;
    sqlite3_stmt* stmt = nullptr;
    int n = -1;
    if (sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK &&
        sqlite3_prepare_v2(db,
                           "SELECT (SELECT COUNT(*) FROM SCANNED_AP_DETAILS) + (SELECT COUNT(*) FROM CHANNEL_DETAILS)",
                           -1, &stmt, nullptr) == SQLITE_OK &&
        sqlite3_step(stmt) == SQLITE_ROW)
        n = sqlite3_column_int(stmt, 0);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    return n;
}

const char* const schema_sql =
    "CREATE TABLE IF NOT EXISTS SCANNED_AP_DETAILS (MAC TEXT PRIMARY KEY,SSID TEXT,CHANNEL INTEGER,PHY_MODE "
    "INTEGER,RSSI INTEGER,AP_TYPE INTEGER,TIMESTAMP TEXT,EPOCHTIMESTAMP TEXT);CREATE TABLE IF NOT EXISTS "
    "CHANNEL_DETAILS (CHANNEL INT PRIMARY KEY,NBSS INT,RSSI INT,MINRSSI INT,NOISE_FLOOR INT,CH_LOAD INT,MAXRSSI "
    "INT,SPECTRAL_LOAD INT,RANK INT);";

void create_floor_db()
{
    sqlite3* db = nullptr;
    sqlite3_open(floor_db, &db);
    sqlite3_exec(db, schema_sql, nullptr, nullptr, nullptr);
    sqlite3_close(db);
}

struct sample {
    double seconds;
    long log;
    int rows;
};

sample run_daemon(bool fresh)
{
    if (fresh) {
        remove_files(paths::scan_dbs[0]);
        create_scan_db_2g();
    }
    remove_files(paths::log_file);
    log_reset_running_size();
    double start = cpu_seconds();
    process_scan_result(0, "wifi0vap0", 0);
    double used = cpu_seconds() - start;
    return {used, log_bytes(paths::log_file), row_count(paths::scan_dbs[0])};
}

sample run_floor(bool fresh)
{
    if (fresh) {
        remove_files(floor_db);
        create_floor_db();
    }
    remove_files(floor_log);
    char date[32] = {};
    char epoch[32] = {};
    // The daemon's round pays for its two shell commands; the floor's time
    // stamps are taken outside the measurement.
    get_date_string(date);
    get_epoch_string(epoch);
    double start = cpu_seconds();
    floor_ingest(report, floor_db, floor_log, date, epoch);
    double used = cpu_seconds() - start;
    return {used, log_bytes(floor_log), row_count(floor_db)};
}

bool enter_sandbox()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0 || mount("tmpfs", "/var", "tmpfs", 0, "mode=0755") != 0) {
        fprintf(stderr, "bench_ingest: needs root for a private mount namespace: %s\n", strerror(errno));
        return false;
    }
    mkdir("/tmp/log", 0755);
    return true;
}

double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main(int argc, char** argv)
{
    int rounds = argc > 1 ? atoi(argv[1]) : 7;
    const char* only = argc > 2 ? argv[2] : nullptr;
    if (rounds < 1 || !enter_sandbox())
        return 2;
    report = make_report();
    log_init(8, 0x80000, 2, paths::log_file);
    driver_ioctl = report_ioctl;
    create_known_ap_table(0);
    init_kh_list();

    // One side alone, for counting its system calls from outside.
    if (only) {
        bool daemon = strcmp(only, "daemon") == 0;
        for (int i = 0; i < rounds; ++i) {
            for (bool fresh : {true, false})
                daemon ? run_daemon(fresh) : run_floor(fresh);
        }
        printf("%d\n", rounds * 2 * static_cast<int>(std::size(channels)) * (bss_per_channel + 1));
        return 0;
    }

    std::vector<double> ratio[2];
    double spent[2][2] = {};
    for (int i = 0; i < rounds; ++i) {
        for (int kind = 0; kind < 2; ++kind) {
            const bool fresh = kind == 0;
            sample d{};
            sample f{};
            if (i % 2 == 0) {
                d = run_daemon(fresh);
                f = run_floor(fresh);
            } else {
                f = run_floor(fresh);
                d = run_daemon(fresh);
            }
            if (d.log != f.log || d.rows != f.rows) {
                fprintf(stderr, "bench_ingest: the daemon wrote %ld log bytes and %d rows, the floor %ld and %d\n",
                        d.log, d.rows, f.log, f.rows);
                return 1;
            }
            ratio[kind].push_back(d.seconds / f.seconds);
            spent[kind][0] += d.seconds;
            spent[kind][1] += f.seconds;
        }
    }
    const int rows = static_cast<int>(std::size(channels)) * (bss_per_channel + 1);
    for (int kind = 0; kind < 2; ++kind)
        printf("ingestion %s: %.3fx the floor (median of %d rounds of %d rows; %.1f us a row, floor %.1f us)\n",
               kind == 0 ? "inserts" : "updates", median(ratio[kind]), rounds, rows,
               spent[kind][0] / rounds / rows * 1e6, spent[kind][1] / rounds / rows * 1e6);
    return 0;
}
