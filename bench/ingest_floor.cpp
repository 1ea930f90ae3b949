// The floor of scan ingestion (see the header): written plainly, with
// nothing that the stored rows and the log lines do not need.
#include "ingest_floor.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "base/log.h"

namespace {

// The daemon's schema and statements, word for word.
const char* const channel_select = "SELECT * FROM CHANNEL_DETAILS WHERE CHANNEL=?";
const char* const channel_update =
    "UPDATE CHANNEL_DETAILS SET NBSS=?, RSSI=?, MINRSSI=?, NOISE_FLOOR=?, CH_LOAD=?, MAXRSSI=?, SPECTRAL_LOAD=?, "
    "RANK=? WHERE CHANNEL=?";
const char* const channel_insert = "INSERT INTO CHANNEL_DETAILS VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?);";
const char* const bss_select = "SELECT * FROM SCANNED_AP_DETAILS WHERE MAC=?";
const char* const bss_update =
    "UPDATE SCANNED_AP_DETAILS SET SSID=?, CHANNEL=?, PHY_MODE=?, RSSI=?, AP_TYPE=?, TIMESTAMP=?, "
    "EPOCHTIMESTAMP=? WHERE MAC=?";
const char* const bss_insert = "INSERT INTO SCANNED_AP_DETAILS VALUES (?, ?, ?, ?, ?, ?, ?, ?);";

const char* log_path = nullptr;
uint32_t log_size = 0;
constexpr uint32_t log_limit = 0x80000;
const char level_names[8][8] = {"EMERG", "ALERT", "CRIT ", "ERROR", "WARN ", "NOTE ", "INFO ", "DEBUG"};

void rotate()
{
    std::string newest = std::string(log_path) + ".0";
    rename(newest.c_str(), (std::string(log_path) + ".1").c_str());
    rename(log_path, newest.c_str());
    log_size = 0;
}

__attribute__((format(printf, 2, 3))) void log_line(unsigned level, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    va_list len_ap;
    va_copy(len_ap, ap);
    int len = vsnprintf(nullptr, 0, format, len_ap);
    va_end(len_ap);
    char* msg = static_cast<char*>(calloc(static_cast<size_t>(len) + 1, 1));
    vsnprintf(msg, static_cast<size_t>(len) + 1, format, ap);
    va_end(ap);
    int fd = open(log_path, O_RDWR | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_nlink != 1) {
        if (fd >= 0)
            close(fd);
        free(msg);
        return;
    }
    if (log_size > log_limit)
        rotate();
    time_t now = time(nullptr);
    struct tm tm_now {};
    char stamp[32];
    asctime_r(localtime_r(&now, &tm_now), stamp);
    stamp[24] = '\0';
    std::string line = "[" + std::string(stamp) + "] [" + level_names[level] + "] : " + msg + "\n";
    ssize_t n = write(fd, line.data(), line.size());
    if (n > 0)
        log_size += static_cast<uint32_t>(n);
    close(fd);
    free(msg);
}

bool exists(sqlite3* db, const char* sql, int channel, const char* mac)
{
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr);
    if (mac)
        sqlite3_bind_text(stmt, 1, mac, -1, SQLITE_STATIC);
    else
        sqlite3_bind_int(stmt, 1, channel);
    bool found = sqlite3_step(stmt) == SQLITE_ROW;
    sqlite3_finalize(stmt);
    return found;
}

void store_channel(sqlite3* db, const acs_report& r)
{
    bool found = exists(db, channel_select, r.ieee_chan, nullptr);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, found ? channel_update : channel_insert, -1, &stmt, nullptr);
    int load = r.chan_load > 100 ? 100 : static_cast<int>(r.chan_load);
    int values[9] = {r.ieee_chan, r.chan_nbss, r.min_rssi,      r.min_rssi, r.noise_floor,
                     load,        r.max_rssi,  r.spectral_load, r.chan_rank};
    // The update names the channel last.
    for (int i = 0; i < 9; ++i)
        sqlite3_bind_int(stmt, i + 1, found ? values[(i + 1) % 9] : values[i]);
    sqlite3_step(stmt);
    sqlite3_finalize(stmt);
}

void store_bss(const char* db_path, const acs_neighbour& n, int channel, const char* date, const char* epoch)
{
    sqlite3* db = nullptr;
    sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, nullptr);
    char mac[20];
    snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", n.bssid[0], n.bssid[1], n.bssid[2], n.bssid[3],
             n.bssid[4], n.bssid[5]);
    bool found = exists(db, bss_select, 0, mac);
    sqlite3_stmt* stmt = nullptr;
    sqlite3_prepare_v2(db, found ? bss_update : bss_insert, -1, &stmt, nullptr);
    int first = found ? 1 : 2;
    sqlite3_bind_text(stmt, found ? 8 : 1, mac, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt, first, n.ssid, -1, SQLITE_STATIC);
    sqlite3_bind_int(stmt, first + 1, channel);
    sqlite3_bind_int(stmt, first + 2, n.phymode);
    sqlite3_bind_int(stmt, first + 3, n.rssi);
    sqlite3_bind_int(stmt, first + 4, n.vx_ap_type);
    sqlite3_bind_text(stmt, first + 5, date, -1, SQLITE_STATIC);
    sqlite3_bind_text(stmt, first + 6, epoch, -1, SQLITE_STATIC);
    sqlite3_step(stmt);
    sqlite3_finalize(stmt);
    sqlite3_close(db);
}

}  // namespace

void floor_ingest(const std::vector<floor_channel>& report, const char* db_path, const char* path, const char* date,
                  const char* epoch)
{
    log_path = path;
    log_size = 0;
    log_line(7, "mutex locked [%s] \n", "process_scan_result");
    log_line(7, "ifname: %s\n", "wifi0vap0");
    sqlite3* db = nullptr;
    sqlite3_open_v2(db_path, &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, nullptr);
    for (const floor_channel& c : report) {
        log_line(3, "acs->ieee_chan:%d, channel:%d \n", c.stats.ieee_chan, 0);
        store_channel(db, c.stats);
    }
    sqlite3_close(db);
    for (const floor_channel& c : report) {
        const int channel = c.stats.ieee_chan;
        log_line(6, "channel:%d, neighbour count:%d \n", channel, static_cast<int>(c.bss.size()));
        for (const acs_neighbour& n : c.bss) {
            const uint8_t* b = n.bssid;
            log_line(3,
                     "Dorvand chan:%3d\t chan_nbss:%d\t ssid:%s\t bssid:%02x:%02x:%02x:%02x:%02x:%02x\t rssi:%d\t "
                     "phymode:%d vx_ap_type:%d\n",
                     channel, static_cast<int>(c.bss.size()), log_escape(n.ssid).c_str(), b[0], b[1], b[2], b[3], b[4],
                     b[5], n.rssi, n.phymode, n.vx_ap_type);
            store_bss(db_path, n, channel, date, epoch);
        }
        log_line(6, "\t #### SCAN RESULTS ### \n");
        int i = 0;
        for (const acs_neighbour& n : c.bss) {
            const uint8_t* b = n.bssid;
            log_line(6, " %d | %02x:%02x:%02x:%02x:%02x:%02x", ++i, b[0], b[1], b[2], b[3], b[4], b[5]);
        }
        log_line(6, "########## LIST TRAVERSAL ##############\n");
        log_line(6, "\t MAC \t\t ACTIVE\tFAMILY\n");
        log_line(7, "mode = %s \n", "a");
    }
    log_line(7, "mutex unlocked [%s] \n", "process_scan_result");
}
