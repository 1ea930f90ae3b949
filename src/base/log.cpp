// The daemon's log file with rotation, and its syslog copies.
#include "base/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "base/files.h"

namespace {

struct free_deleter {
    void operator()(char* p) const { free(p); }
};

// Level names in fixed 8-byte slots, indexed by level.
const char msg_type[8][8] = {"EMERG", "ALERT", "CRIT ", "ERROR", "WARN ", "NOTE ", "INFO ", "DEBUG"};
// The active configuration (a copy installed by set_log_conf).
log_conf data{};
// Running size of the current log file in bytes.
uint32_t cur_log_size = 0;

constexpr uint32_t max_backups = 99;
constexpr uint32_t max_size_limit = 0x100000;

// Serialises writers of the file and of cur_log_size. Nothing logs from signal
// context (signal handlers only hand their work to a thread), so a plain mutex
// is safe here.
std::mutex log_lock;

log_conf startup_conf{};

// Whether syslog has been told that the log file was refused (under log_lock).
bool log_refusal_told = false;

}  // namespace

const char* log_timestamp()
{
    thread_local char buf[32];
    time_t now = time(nullptr);
    struct tm tm_now {};
    localtime_r(&now, &tm_now);
    if (!asctime_r(&tm_now, buf)) {  // GCOVR_EXCL_START: only for a year past 9999
        buf[0] = '\0';
        return buf;
    }                // GCOVR_EXCL_STOP
    buf[24] = '\0';  // drop asctime's newline
    return buf;
}

void log_rotate(const char* path)
{
    char from[256];
    char to[256];
    // set_log_conf keeps the count at 1 or more.
    int n = static_cast<int>(data.backup_count) - 1;
    snprintf(to, sizeof to, "%s.%d", path, n);
    while (n > 0) {
        --n;
        snprintf(from, sizeof from, "%s.%d", path, n);
        rename(from, to);
        memcpy(to, from, sizeof to);
    }
    rename(path, to);
    cur_log_size = 0;
}

int log_msg(int to_syslog, unsigned level, const char* format, ...)
{
    va_list ap;
    va_start(ap, format);
    if (to_syslog == 1) {
        va_list sys_ap;
        va_copy(sys_ap, ap);
        vsyslog(static_cast<int>(level), format, sys_ap);
        va_end(sys_ap);
    }
    va_list len_ap;
    va_copy(len_ap, ap);
    int len = vsnprintf(nullptr, 0, format, len_ap);
    va_end(len_ap);

    std::lock_guard<std::mutex> hold(log_lock);
    if (len < 0 || level >= data.level_limit) {
        va_end(ap);
        return 0;
    }
    // Exactly sized (the format's second pass), so a message of any length
    // is written whole.
    std::unique_ptr<char, free_deleter> msg(static_cast<char*>(calloc(static_cast<size_t>(len) + 1, 1)));
    if (!msg) {  // GCOVR_EXCL_START: calloc of a message's size, which overcommit never refuses
        va_end(ap);
        return 0;
    }  // GCOVR_EXCL_STOP
    vsnprintf(msg.get(), static_cast<size_t>(len) + 1, format, ap);
    va_end(ap);

    // The log lives in a world-writable directory: no link is followed and
    // only the daemon's own regular file is written (a refused file is
    // handled like one that cannot be opened).
    const char* why = nullptr;
    unique_fd fd(open_checked(data.path, O_RDWR | O_APPEND | O_CREAT, 0666, &why));
    if (why && !log_refusal_told) {
        // Nowhere else to say it: the one line goes to syslog, once.
        syslog(LOG_ERR, "[dorvand] Refused %s: %s\n", data.path, why);
        log_refusal_told = true;
    }
    if (!fd.valid())
        return 0;
    if (cur_log_size > data.size_limit)
        log_rotate(data.path);  // this line lands in backup 0
    // One write per line, so that lines never interleave with another
    // writer's and no stream buffer is needed.
    char head[64];
    int head_len = snprintf(head, sizeof head, "[%s] [%s] : ", log_timestamp(), msg_type[level & 7]);
    char newline = '\n';
    // The message as a C string: it ends at a NUL that a %c may have put in.
    size_t msg_len = strnlen(msg.get(), static_cast<size_t>(len));
    iovec parts[3] = {{head, static_cast<size_t>(head_len)}, {msg.get(), msg_len}, {&newline, 1}};
    ssize_t written = writev(fd.get(), parts, 3);
    if (written > 0)
        cur_log_size += static_cast<uint32_t>(written);
    return 0;
}

void set_log_conf(const log_conf& conf)
{
    std::lock_guard<std::mutex> hold(log_lock);
    data = conf;
    data.path[sizeof data.path - 1] = '\0';
    if (data.backup_count > max_backups)
        data.backup_count = max_backups;
    // Rotation needs somewhere to put the full file; 0 backups would have
    // nowhere, so it keeps one.
    if (data.backup_count == 0)
        data.backup_count = 1;
    if (data.size_limit > max_size_limit)
        data.size_limit = max_size_limit;

    unique_fd fd(open_checked(data.path, O_RDONLY, 0, nullptr));
    struct stat st {};
    if (fd.valid() && fstat(fd.get(), &st) == 0) {
        cur_log_size = static_cast<uint32_t>(st.st_size);
        syslog(LOG_INFO, "%s: Log level: %u, Log size: %u, Log backup count: %u", "set_log_conf", data.level_limit,
               data.size_limit, data.backup_count);
    } else {
        syslog(LOG_ERR, "%s: %s->File not found\n", "set_log_conf", data.path);
    }
}

void log_init(uint32_t level_limit, uint32_t size_limit, uint32_t backup_count, const char* path)
{
    startup_conf = log_conf{};
    startup_conf.level_limit = level_limit;
    startup_conf.size_limit = size_limit;
    startup_conf.backup_count = backup_count;
    snprintf(startup_conf.path, sizeof startup_conf.path, "%s", path);
    set_log_conf(startup_conf);
}

void log_reset_running_size()
{
    std::lock_guard<std::mutex> lock(log_lock);
    cur_log_size = 0;
}

std::string log_escape(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (char ch : text) {
        auto c = static_cast<unsigned char>(ch);
        if (c == '\\') {
            out += "\\\\";
        } else if (c < 0x20 || c == 0x7f) {
            char hex[5];
            snprintf(hex, sizeof hex, "\\x%02x", c);
            out += hex;
        } else {
            out += ch;
        }
    }
    return out;
}
