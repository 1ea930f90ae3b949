// Fault injection in the simulated access point: the daemon's rules come
// from DORVSIM_FAULTS at start and from the control file, re-read when it
// changes, and every firing is appended to the fired log. The control file
// and the log are read and written with raw system calls, so that the
// injector neither sees nor counts its own I/O.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "../faults/fault_core.h"
#include "event_clock.h"
#include "preload.h"

namespace core = dorvfault::core;

namespace dorvsim {

namespace {

constexpr int env_owner = 2;
constexpr int file_owner = 3;
constexpr int64_t check_interval_ns = 50 * 1000000;
constexpr size_t max_file = 8192;

char ctl_path[256];
char fired_path[256];
std::atomic<int64_t> last_check{0};
std::atomic<bool> loading{false};

// The control file as last loaded (ino 0: absent).
struct file_id {
    ino_t ino = 0;
    off_t size = -1;
    struct timespec mtime {};
};
file_id loaded;

void append_line(const char* line, size_t len)
{
    if (!fired_path[0])
        return;
    long fd = syscall(SYS_openat, AT_FDCWD, fired_path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0)
        return;
    [[maybe_unused]] long n = syscall(SYS_write, fd, line, len);
    syscall(SYS_close, fd);
}

// `text` with every byte outside printable ASCII (and the quote and the
// backslash) as \xNN: paths come from the daemon and, through it, from
// outside.
void escape(const char* text, char* out, size_t cap)
{
    size_t o = 0;
    for (const unsigned char* c = reinterpret_cast<const unsigned char*>(text); *c && o + 5 < cap; ++c) {
        if (*c < 0x20 || *c >= 0x7f || *c == '"' || *c == '\\') {
            static const char hex[] = "0123456789abcdef";
            out[o++] = '\\';
            out[o++] = 'x';
            out[o++] = hex[*c >> 4];
            out[o++] = hex[*c & 15];
        } else {
            out[o++] = static_cast<char>(*c);
        }
    }
    out[o] = '\0';
}

void log_event(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void log_event(const char* fmt, ...)
{
    char line[768];
    va_list ap;
    va_start(ap, fmt);
    size_t len = format_timed_line(line, sizeof line, fmt, ap);
    va_end(ap);
    append_line(line, len);
}

void refused(const char* why)
{
    char esc[512];
    escape(why, esc, sizeof esc);
    log_event("refused \"%s\"", esc);
    warn("%s", why);
}

// Runs in the thread (or signal handler) whose call fired: no allocation.
void on_fire(int slot, core::call c, const char* path, const core::hit& h)
{
    int saved = errno;
    core::slot_state st;
    if (!core::slot_info(slot, st))
        return;
    char esc[core::path_max * 4];
    escape(path, esc, sizeof esc);
    if (h.short_len >= 0) {
        log_event("fired rule=\"%s\" call=%s path=\"%s\" short=%ld", st.text, core::call_name(c), esc, h.short_len);
    } else {
        const char* name = core::errno_name(h.err);
        char num[16];
        snprintf(num, sizeof num, "%d", h.err);
        log_event("fired rule=\"%s\" call=%s path=\"%s\" errno=%s", st.text, core::call_name(c), esc,
                  name ? name : num);
    }
    errno = saved;
}

// Arms each rule of `text` (';' or newline separated) for `owner`; returns
// how many were armed, and in `generation` the number of a
// "# generation N" line.
int arm_text(char* text, int owner, long& generation, bool keep_armed[core::max_rules])
{
    int armed = 0;
    for (char* line = text; line && *line;) {
        char* end = line + strcspn(line, ";\n");
        char sep = *end;
        *end = '\0';
        const char* s = line + strspn(line, " \t");
        if (*s == '#') {
            sscanf(s, "# generation %ld", &generation);
        } else if (*s) {
            core::rule r;
            char why[400];
            int slot = -1;
            if (!core::parse_rule(s, r, why, sizeof why)) {
                refused(why);
            } else if ((slot = core::find_armed(r.text, owner)) < 0 && (slot = core::arm(r, owner, false)) < 0) {
                snprintf(why, sizeof why, "bad fault rule \"%s\": every one of the %zu slots is armed", r.text,
                         core::max_rules);
                refused(why);
            } else {
                keep_armed[slot] = true;
                ++armed;
            }
        }
        line = sep ? end + 1 : nullptr;
    }
    return armed;
}

void load_control_file(bool exists)
{
    char text[max_file + 1];
    size_t len = 0;
    if (exists) {
        long fd = syscall(SYS_openat, AT_FDCWD, ctl_path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0)
            return;  // replaced in between: the next check sees it
        long n;
        while (len < max_file && (n = syscall(SYS_read, fd, text + len, max_file - len)) > 0)
            len += static_cast<size_t>(n);
        syscall(SYS_close, fd);
    }
    text[len] = '\0';
    long generation = 0;
    bool keep[core::max_rules] = {};
    int armed = arm_text(text, file_owner, generation, keep);
    for (size_t i = 0; i < core::max_rules; ++i) {
        core::slot_state st;
        if (!keep[i] && core::slot_info(static_cast<int>(i), st) && st.live &&
            core::find_armed(st.text, file_owner) == static_cast<int>(i))
            core::disarm(static_cast<int>(i));
    }
    log_event("loaded generation=%ld rules=%d", generation, armed);
}

// Every interposed call comes here first: at most every 50 ms one of them
// looks at the control file.
void poll_control_file()
{
    int64_t now = real_monotonic_ns();
    int64_t last = last_check.load(std::memory_order_relaxed);
    if (now - last < check_interval_ns || !last_check.compare_exchange_strong(last, now))
        return;
    if (loading.exchange(true, std::memory_order_acquire))
        return;
    int saved = errno;
    struct stat sb {};
    bool exists = stat(ctl_path, &sb) == 0;
    file_id now_id;
    if (exists) {
        now_id.ino = sb.st_ino;
        now_id.size = sb.st_size;
        now_id.mtime = sb.st_mtim;
    }
    if (now_id.ino != loaded.ino || now_id.size != loaded.size || now_id.mtime.tv_sec != loaded.mtime.tv_sec ||
        now_id.mtime.tv_nsec != loaded.mtime.tv_nsec) {
        loaded = now_id;
        load_control_file(exists);
    }
    errno = saved;
    loading.store(false, std::memory_order_release);
}

void copy_env(const char* name, char (&out)[256])
{
    const char* v = getenv(name);
    if (v && strlen(v) < sizeof out)
        snprintf(out, sizeof out, "%s", v);
    else if (v)
        warn("%s too long, ignored", name);
}

}  // namespace

void faults_start()
{
    core::passthrough quiet;
    copy_env("DORVSIM_FAULTS_FILE", ctl_path);
    copy_env("DORVSIM_FAULTS_FIRED", fired_path);
    core::set_fire_hook(on_fire);
    if (const char* env = getenv("DORVSIM_FAULTS")) {
        char text[max_file + 1];
        snprintf(text, sizeof text, "%s", env);
        long generation = 0;
        bool keep[core::max_rules] = {};
        arm_text(text, env_owner, generation, keep);
    }
    core::set_enabled(true);
    if (ctl_path[0]) {
        poll_control_file();
        core::set_poll_hook(poll_control_file);
        event_clock_set_wake_hook(poll_control_file);
    }
}

}  // namespace dorvsim
