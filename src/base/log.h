// The daemon's log: time-stamped lines in a size-bounded, rotated file, with
// optional copies to syslog.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace log_lvl {
constexpr unsigned emerg = 0;
constexpr unsigned alert = 1;
constexpr unsigned crit = 2;
constexpr unsigned error = 3;
constexpr unsigned warn = 4;
constexpr unsigned note = 5;
constexpr unsigned info = 6;
constexpr unsigned debug = 7;
}  // namespace log_lvl

struct log_conf {
    uint32_t level_limit;   // a line reaches the file only when its level is below this
    uint32_t size_limit;    // bytes; the file is rotated once its size exceeds this
    uint32_t backup_count;  // numbered backups kept, 1..99
    char path[256];
};

// Forgets the running size, as a fresh start without a log file would.
void log_reset_running_size();

// Appends one line to the log file (when level < the level limit) and, when
// to_syslog is 1, hands the message to syslog whatever its level. Returns 0.
// Any thread may call it; calls are serialised so that the running size and
// rotation stay consistent.
int log_msg(int to_syslog, unsigned level, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Installs a copy of conf as the active configuration (backup count limited to
// 1..99, size limit to 0x100000) and takes the running size from the file.
void set_log_conf(const log_conf& conf);

// Start-up convenience: builds a zero-filled record (path cut to 255
// characters) and installs it with set_log_conf.
void log_init(uint32_t level_limit, uint32_t size_limit, uint32_t backup_count, const char* path);

// The local time as asctime text without its newline (24 characters). The
// text lives in a per-thread buffer, valid until the thread's next call.
const char* log_timestamp();

// Shifts the numbered backups of path up by one, renames path to backup 0 and
// resets the running size. Callers hold the log lock (log_msg does).
void log_rotate(const char* path);

// Text that came from the air or the network, made safe for one log line:
// control bytes become \xNN and a backslash is doubled, so such text can never
// end a record or start a forged one. Any thread.
std::string log_escape(std::string_view text);
