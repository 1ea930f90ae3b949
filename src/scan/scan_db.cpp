// The per-band scan databases: creation, and the channel and BSS upserts of
// a scan's write cycles.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <initializer_list>
#include <memory>
#include <utility>

#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"

namespace {

// ---- Statements --------------------------------------------------------------

constexpr const char* schema_sql =
    "CREATE TABLE IF NOT EXISTS SCANNED_AP_DETAILS (MAC TEXT PRIMARY KEY,SSID TEXT,CHANNEL INTEGER,PHY_MODE "
    "INTEGER,RSSI INTEGER,AP_TYPE INTEGER,TIMESTAMP TEXT,EPOCHTIMESTAMP TEXT);CREATE TABLE IF NOT EXISTS "
    "CHANNEL_DETAILS (CHANNEL INT PRIMARY KEY,NBSS INT,RSSI INT,MINRSSI INT,NOISE_FLOOR INT,CH_LOAD INT,MAXRSSI "
    "INT,SPECTRAL_LOAD INT,RANK INT);";
constexpr const char* channel_select_sql = "SELECT * FROM CHANNEL_DETAILS WHERE CHANNEL=?";
constexpr const char* channel_update_sql =
    "UPDATE CHANNEL_DETAILS SET NBSS=?, RSSI=?, MINRSSI=?, NOISE_FLOOR=?, CH_LOAD=?, MAXRSSI=?, SPECTRAL_LOAD=?, "
    "RANK=? WHERE CHANNEL=?";
constexpr const char* channel_insert_sql = "INSERT INTO CHANNEL_DETAILS VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?);";
constexpr const char* bss_select_sql = "SELECT * FROM SCANNED_AP_DETAILS WHERE MAC=?";
constexpr const char* bss_update_sql =
    "UPDATE SCANNED_AP_DETAILS SET SSID=?, CHANNEL=?, PHY_MODE=?, RSSI=?, AP_TYPE=?, TIMESTAMP=?, "
    "EPOCHTIMESTAMP=? WHERE MAC=?";
constexpr const char* bss_insert_sql = "INSERT INTO SCANNED_AP_DETAILS VALUES (?, ?, ?, ?, ?, ?, ?, ?);";
constexpr const char* tables_sql =
    "SELECT COUNT(*) FROM sqlite_master WHERE type='table' AND name IN ('SCANNED_AP_DETAILS','CHANNEL_DETAILS')";
constexpr int schema_tables = 2;

// Fixed source lines carried by the diagnostics.
constexpr int line_channel_select = 1301;
constexpr int line_channel_insert = 1319;
constexpr int line_channel_update = 1333;
constexpr int line_channel_step = 1338;
constexpr int line_bss_insert = 1456;
constexpr int line_bss_update = 1469;

constexpr uint32_t chan_load_max = 100;

struct stmt_finalizer {
    void operator()(sqlite3_stmt* stmt) const { sqlite3_finalize(stmt); }
};
using stmt_ptr = std::unique_ptr<sqlite3_stmt, stmt_finalizer>;

stmt_ptr prepare(sqlite3* db, const char* sql)
{
    sqlite3_stmt* stmt = nullptr;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) != SQLITE_OK) {
        sqlite3_finalize(stmt);
        return nullptr;
    }
    return stmt_ptr(stmt);
}

// Binds integers to parameters first, first+1, ... in order.
void bind_ints(sqlite3_stmt* stmt, int first, std::initializer_list<int32_t> values)
{
    int index = first;
    for (int32_t v : values)
        sqlite3_bind_int(stmt, index++, v);
}

void bind_text(sqlite3_stmt* stmt, int index, const char* text)
{
    // The texts outlive the step, so SQLite need not copy them.
    sqlite3_bind_text(stmt, index, text, -1, SQLITE_STATIC);
}

// Runs a prepared existence query once; true when it found a row.
bool row_exists(stmt_ptr stmt)
{
    return sqlite3_step(stmt.get()) == SQLITE_ROW;
}

// How long a write waits for a reader of the database (another program of
// the access point) before it fails, and the naps in between.
constexpr int64_t busy_timeout_ms = 2000;
constexpr int64_t busy_nap_ms = 5;

int64_t monotonic_ms()
{
    struct timespec ts {};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// SQLite's busy handler: the readers are other processes working in real
// time, so the wait for them is kept on the monotonic clock. `count` is 0 at
// the first call for each lock the statement waits for. Event-loop thread.
int wait_for_readers(void*, int count)
{
    thread_local int64_t since_ms = 0;
    int64_t now = monotonic_ms();
    if (count == 0)
        since_ms = now;
    if (now - since_ms >= busy_timeout_ms)
        return 0;
    int64_t until = now + busy_nap_ms;
    struct timespec ts {};
    ts.tv_sec = static_cast<time_t>(until / 1000);
    ts.tv_nsec = static_cast<long>(until % 1000 * 1000000);
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr);
    return 1;
}

// The connection itself: a symbolic link in the name is refused, and a busy
// timeout lets readers delay writes instead of failing them.
int open_connection(const char* path, sqlite_ptr& db)
{
    sqlite3* raw = nullptr;
    int rc = sqlite3_open_v2(path, &raw, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW, nullptr);
    db.reset(raw);
    if (rc == SQLITE_OK)
        sqlite3_busy_handler(raw, wait_for_readers, nullptr);
    return rc;
}

// Opens a band's database the way every write cycle of the daemon does: no
// symbolic link anywhere in the name and only the daemon's own file with one
// link. A refused file is reported like one that cannot be opened.
int open_db(int radio, sqlite_ptr& db)
{
    const char* path = paths::scan_dbs[radio];
    if (file_exists(path)) {
        unique_fd checked = open_owned(path, O_RDONLY);
        if (!checked.valid())
            return SQLITE_CANTOPEN;
    }
    return open_connection(path, db);
}

// A BSS row's own connection. Once its report's write cycle has checked the
// file, the rows of that report skip the check (it costs more system calls
// than the row's own work needs); a connection that fails then is opened
// again the checked way, which reports it as every open does.
sqlite_ptr open_row_db(int radio)
{
    if (scanning().db_checked[radio]) {
        sqlite_ptr db;
        if (open_connection(paths::scan_dbs[radio], db) == SQLITE_OK)
            return db;
    }
    return open_scan_db(radio, DB_OPEN_LINE_BSS);
}

int run_schema(sqlite3* db)
{
    int rc = sqlite3_exec(db, schema_sql, nullptr, nullptr, nullptr);
    if (rc != SQLITE_OK)
        log_msg(0, log_lvl::error, "Cannot create tables: %s\n", sqlite3_errmsg(db));
    return rc;
}

int create_scan_db(int radio)
{
    sqlite_ptr db;
    int rc = open_db(radio, db);
    if (rc != SQLITE_OK) {
        // A file refused before SQLite saw it leaves no handle to ask.
        log_msg(0, log_lvl::error, "Cannot open database: %s\n", db ? sqlite3_errmsg(db.get()) : sqlite3_errstr(rc));
        return rc;
    }
    log_msg(0, log_lvl::error, "Creating scan table\n");
    return run_schema(db.get());
}

// ---- Recovery ----------------------------------------------------------------

enum class db_health { fit, no_tables, unreadable, unknown };

// Whether a write cycle can store into the open database. A file SQLite
// cannot read as a database (garbage, or damaged in its schema) is
// unreadable; a busy or failing read is unknown and left to the statements,
// which report it as they always have.
db_health examine_db(sqlite3* db)
{
    sqlite3_stmt* raw = nullptr;
    int rc = sqlite3_prepare_v2(db, tables_sql, -1, &raw, nullptr);
    stmt_ptr query(raw);
    if (rc == SQLITE_OK)
        rc = sqlite3_step(query.get());
    if (rc == SQLITE_ROW)
        return sqlite3_column_int(query.get(), 0) == schema_tables ? db_health::fit : db_health::no_tables;
    rc &= 0xff;  // the primary code of an extended one
    return rc == SQLITE_NOTADB || rc == SQLITE_CORRUPT ? db_health::unreadable : db_health::unknown;
}

// Once per incident: until a write cycle opens the database again.
void report_unreplaceable(int radio, int err)
{
    if (std::exchange(scanning().db_fault_told[radio], true))
        return;
    log_msg(0, log_lvl::error, "[dorvand] Scan database %s cannot be replaced [%d|%s]: tried again at the next scan\n",
            paths::scan_dbs[radio], err, strerror(err));
}

stmt_ptr prepare_channel_write(sqlite3* db, const channel_stats& s, bool exists)
{
    const int32_t min_rssi = s.min_rssi;
    const auto load = static_cast<int32_t>(s.chan_load);
    if (exists) {
        stmt_ptr stmt = prepare(db, channel_update_sql);
        if (!stmt) {
            log_msg(0, log_lvl::error, "[%d]Failed to execute statement: %s\n", line_channel_update,
                    sqlite3_errmsg(db));
            return nullptr;
        }
        bind_ints(stmt.get(), 1,
                  {s.chan_nbss, min_rssi, min_rssi, s.noise_floor, load, s.max_rssi, s.spectral_load, s.chan_rank,
                   s.ieee_chan});
        return stmt;
    }
    stmt_ptr stmt = prepare(db, channel_insert_sql);
    if (!stmt) {
        log_msg(0, log_lvl::error, "[%d]Failed to execute statement: %s\n", line_channel_insert, sqlite3_errmsg(db));
        return nullptr;
    }
    bind_ints(
        stmt.get(), 1,
        {s.ieee_chan, s.chan_nbss, min_rssi, min_rssi, s.noise_floor, load, s.max_rssi, s.spectral_load, s.chan_rank});
    return stmt;
}

stmt_ptr prepare_bss_write(sqlite3* db, const bss_row& row, const char* mac, bool exists)
{
    stmt_ptr stmt = prepare(db, exists ? bss_update_sql : bss_insert_sql);
    if (!stmt) {
        log_msg(0, log_lvl::error, "[%d]Failed to execute statement: %s\n", exists ? line_bss_update : line_bss_insert,
                sqlite3_errmsg(db));
        return nullptr;
    }
    // The update names the MAC last, the insert first; the rest share an order.
    int first = exists ? 1 : 2;
    bind_text(stmt.get(), exists ? 8 : 1, mac);
    bind_text(stmt.get(), first, row.ssid);
    bind_ints(stmt.get(), first + 1, {row.channel, row.phymode, row.rssi, row.ap_type});
    bind_text(stmt.get(), first + 5, row.timestamp);
    bind_text(stmt.get(), first + 6, row.epoch);
    return stmt;
}

}  // namespace

int create_scan_db_2g()
{
    return create_scan_db(0);
}

int create_scan_db_5g()
{
    return create_scan_db(1);
}

int create_scan_db_5gh()
{
    return create_scan_db(2);
}

sqlite_ptr open_scan_db(int radio, int line)
{
    sqlite_ptr db;
    int rc = open_db(radio, db);
    if (rc != SQLITE_OK) {
        log_msg(0, log_lvl::error, "[%d]Error in opening Db \n", line);
        return nullptr;
    }
    return db;
}

namespace {

sqlite_ptr open_checked_report_db(int radio)
{
    const char* path = paths::scan_dbs[radio];
    // What was found in the database's place, for the one line of the repair.
    char found[96] = "lacked its tables";
    struct stat st {};
    if (lstat(path, &st) != 0) {
        if (errno == ENOENT)
            snprintf(found, sizeof found, "was missing");
    } else if (S_ISDIR(st.st_mode)) {
        // An empty directory holds nothing to examine; one with content is
        // somebody's, and stays.
        if (rmdir(path) != 0) {
            report_unreplaceable(radio, errno);
            return nullptr;
        }
        snprintf(found, sizeof found, "was a directory");
    }
    sqlite_ptr db = open_scan_db(radio, DB_OPEN_LINE_CHANNEL);
    if (!db)
        return nullptr;
    db_health health = examine_db(db.get());
    if (health == db_health::unreadable) {
        db.reset();
        // Kept for examination, not deleted; an older one of the band goes.
        if (rename(path, paths::scan_dbs_corrupt[radio]) != 0) {
            report_unreplaceable(radio, errno);
            return nullptr;
        }
        snprintf(found, sizeof found, "was not a database (moved to %s)", paths::scan_dbs_corrupt[radio]);
        db = open_scan_db(radio, DB_OPEN_LINE_CHANNEL);
        if (!db)
            return nullptr;
        health = db_health::no_tables;
    }
    scanning().db_fault_told[radio] = false;
    if (health == db_health::no_tables) {
        // A failure is reported by the schema run, and the statements that
        // follow report theirs as they always have.
        if (run_schema(db.get()) != SQLITE_OK)
            return db;
        log_msg(0, log_lvl::error, "[dorvand] Scan database %s %s: created again\n", path, found);
    }
    return db;
}

}  // namespace

sqlite_ptr open_report_db(int radio)
{
    sqlite_ptr db = open_checked_report_db(radio);
    scanning().db_checked[radio] = db != nullptr;
    return db;
}

void upsert_channel(sqlite3* db, channel_stats stats)
{
    if (stats.chan_load > chan_load_max)
        stats.chan_load = chan_load_max;
    stmt_ptr query = prepare(db, channel_select_sql);
    if (!query) {
        log_msg(0, log_lvl::info, "[%d]Cannot run sql statement: %s\n", line_channel_select, sqlite3_errmsg(db));
        return;
    }
    sqlite3_bind_int(query.get(), 1, stats.ieee_chan);
    bool exists = row_exists(std::move(query));
    stmt_ptr write = prepare_channel_write(db, stats, exists);
    if (!write)
        return;
    if (sqlite3_step(write.get()) != SQLITE_DONE)
        log_msg(0, log_lvl::error, "[%d] - Error in executing statement:%s\n", line_channel_step, sqlite3_errmsg(db));
}

void upsert_bss(int radio, const bss_row& row)
{
    sqlite_ptr db = open_row_db(radio);
    if (!db)
        return;
    char mac[20];
    snprintf(mac, sizeof mac, "%02x:%02x:%02x:%02x:%02x:%02x", row.bssid[0], row.bssid[1], row.bssid[2], row.bssid[3],
             row.bssid[4], row.bssid[5]);
    stmt_ptr query = prepare(db.get(), bss_select_sql);
    if (!query) {
        log_msg(0, log_lvl::info, "Cannot run sql statement: %s\n", sqlite3_errmsg(db.get()));
        return;
    }
    bind_text(query.get(), 1, mac);
    bool exists = row_exists(std::move(query));
    stmt_ptr write = prepare_bss_write(db.get(), row, mac, exists);
    if (!write)
        return;
    if (sqlite3_step(write.get()) != SQLITE_DONE)
        log_msg(0, log_lvl::error, "[%s] - Error in executing statement:%s\n", "process_scan_result",
                sqlite3_errmsg(db.get()));
}
