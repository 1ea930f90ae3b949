// The fault injector's core: rule parsing, the armed rules and their counts,
// the descriptor table and the per-call check.
#include "fault_core.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace dorvfault::core {

void (*child_started)(int pid) = nullptr;

namespace {

// What each call's rules may say: whether the call names a path (or works
// on a descriptor that has one), works on a descriptor of some kind, or
// may be cut short.
struct call_desc {
    const char* name;
    bool path;
    bool fd;
    bool shortable;
};

constexpr call_desc calls[] = {
    {"open", true, false, false},    {"write", true, true, true},       {"rename", true, false, false},
    {"unlink", true, false, false},  {"ftruncate", true, true, false},  {"fsync", true, true, false},
    {"mkdir", true, false, false},   {"socket", false, true, false},    {"bind", true, true, false},
    {"connect", true, true, false},  {"send", true, true, true},        {"recv", true, true, false},
    {"pipe2", false, false, false},  {"spawn", true, false, false},     {"select", false, false, false},
    {"poll", true, true, false},     {"sigaction", true, false, false}, {"thread", false, false, false},
    {"daemon", false, false, false},
};
static_assert(sizeof calls / sizeof calls[0] == static_cast<size_t>(call::count_));

struct errno_entry {
    int err;
    const char* name;
};

// clang-format off
constexpr errno_entry errno_names[] = {
    {EPERM, "EPERM"},       {ENOENT, "ENOENT"},         {EINTR, "EINTR"},           {EIO, "EIO"},
    {ENXIO, "ENXIO"},       {E2BIG, "E2BIG"},           {EBADF, "EBADF"},           {ECHILD, "ECHILD"},
    {EAGAIN, "EAGAIN"},     {ENOMEM, "ENOMEM"},         {EACCES, "EACCES"},         {EFAULT, "EFAULT"},
    {EBUSY, "EBUSY"},       {EEXIST, "EEXIST"},         {EXDEV, "EXDEV"},           {ENODEV, "ENODEV"},
    {ENOTDIR, "ENOTDIR"},   {EISDIR, "EISDIR"},         {EINVAL, "EINVAL"},         {ENFILE, "ENFILE"},
    {EMFILE, "EMFILE"},     {ENOTTY, "ENOTTY"},         {EFBIG, "EFBIG"},           {ENOSPC, "ENOSPC"},
    {ESPIPE, "ESPIPE"},     {EROFS, "EROFS"},           {EMLINK, "EMLINK"},         {EPIPE, "EPIPE"},
    {ERANGE, "ERANGE"},     {ENAMETOOLONG, "ENAMETOOLONG"}, {ENOSYS, "ENOSYS"},     {ENOTEMPTY, "ENOTEMPTY"},
    {ELOOP, "ELOOP"},       {EDQUOT, "EDQUOT"},         {ENOTSOCK, "ENOTSOCK"},     {EMSGSIZE, "EMSGSIZE"},
    {EOPNOTSUPP, "EOPNOTSUPP"}, {EAFNOSUPPORT, "EAFNOSUPPORT"}, {EADDRINUSE, "EADDRINUSE"},
    {EADDRNOTAVAIL, "EADDRNOTAVAIL"}, {ENETUNREACH, "ENETUNREACH"}, {ECONNABORTED, "ECONNABORTED"},
    {ECONNRESET, "ECONNRESET"}, {ENOBUFS, "ENOBUFS"},   {ENOTCONN, "ENOTCONN"},     {ETIMEDOUT, "ETIMEDOUT"},
    {ECONNREFUSED, "ECONNREFUSED"}, {EHOSTUNREACH, "EHOSTUNREACH"},
};
// clang-format on

constexpr uint8_t st_free = 0, st_live = 1, st_dead = 2;
constexpr int max_fds = 1024;

struct slot {
    std::atomic<uint8_t> state{st_free};
    rule r;
    int owner = 0;
    bool optional = false;
    std::atomic<uint32_t> seen{0};
    std::atomic<uint32_t> fired{0};
    std::atomic<uint8_t> last_call{0};
    std::atomic<int> last_err{0};
    std::atomic<char> last_path[path_max] = {};
};

struct fd_entry {
    std::atomic<uint8_t> kind{0};
    std::atomic<char> path[path_max] = {};
};

slot slots[max_rules];
std::atomic<uint32_t> live_rules{0};
fd_entry fds[max_fds];
#ifdef DORVFAULT_UNIT
std::atomic<bool> active{true};
#else
std::atomic<bool> active{false};
#endif
std::atomic<fire_hook> on_fire{nullptr};
std::atomic<poll_hook> on_poll{nullptr};
__attribute__((tls_model("initial-exec"))) thread_local int passthrough_depth = 0;

void store_chars(std::atomic<char> (&dst)[path_max], const char* src)
{
    size_t i = 0;
    for (; src && src[i] && i < path_max - 1; ++i)
        dst[i].store(src[i], std::memory_order_relaxed);
    dst[i].store('\0', std::memory_order_release);
}

void load_chars(const std::atomic<char> (&src)[path_max], char (&out)[path_max])
{
    size_t i = 0;
    if (src[0].load(std::memory_order_acquire) != '\0') {
        for (; i < path_max - 1; ++i) {
            out[i] = src[i].load(std::memory_order_relaxed);
            if (!out[i])
                break;
        }
    }
    out[i] = '\0';
}

void copy_text(char* dst, size_t cap, const char* src, size_t len)
{
    if (len >= cap)
        len = cap - 1;
    memcpy(dst, src, len);
    dst[len] = '\0';
}

bool refuse(char* why, size_t why_len, const char* text, const char* reason)
{
    if (why && why_len)
        snprintf(why, why_len, "bad fault rule \"%s\": %s", text, reason);
    return false;
}

bool parse_uint(const char* s, unsigned long lo, unsigned long hi, unsigned long& out)
{
    if (!*s || *s < '0' || *s > '9')
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long v = strtoul(s, &end, 10);
    if (errno || *end || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

bool parse_errno(const char* s, int& out)
{
    for (const errno_entry& e : errno_names) {
        if (strcmp(s, e.name) == 0) {
            out = e.err;
            return true;
        }
    }
    unsigned long v = 0;
    if (!parse_uint(s, 1, 4095, v))
        return false;
    out = static_cast<int>(v);
    return true;
}

bool parse_kind(const char* s, fd_kind& out)
{
    static constexpr struct {
        const char* name;
        fd_kind kind;
    } kinds[] = {{"file", fd_kind::file},
                 {"unix", fd_kind::unix_sock},
                 {"inet", fd_kind::inet},
                 {"pipe", fd_kind::pipe},
                 {"any", fd_kind::any}};
    for (const auto& k : kinds) {
        if (strcmp(s, k.name) == 0) {
            out = k.kind;
            return true;
        }
    }
    return false;
}

// Which of a rule's optional keys were given.
struct seen_keys {
    bool path, fd, nth, count, every, err, shortlen;
};

// Applies one `key=value` word (or `every`) to `r`; null when accepted,
// else why not.
const char* apply_word(const char* word, const call_desc& d, rule& r, seen_keys& k)
{
    const char* eq = strchr(word, '=');
    const char* val = eq ? eq + 1 : "";
    size_t klen = eq ? static_cast<size_t>(eq - word) : strlen(word);
    auto is = [&](const char* key) { return strlen(key) == klen && strncmp(word, key, klen) == 0; };
    unsigned long v = 0;
    if (is("every") && !eq) {
        if (k.every || k.count)
            return "\"every\" given with \"count\" or twice";
        k.every = true;
        r.count = every;
    } else if (!eq) {
        return "a word that is neither KEY=VALUE nor \"every\"";
    } else if (is("path")) {
        if (!d.path)
            return "this call takes no path";
        if (k.path || !*val || strlen(val) >= path_max)
            return "\"path\" given twice, empty or too long";
        k.path = true;
        snprintf(r.glob, sizeof r.glob, "%s", val);
    } else if (is("fd")) {
        if (!d.fd)
            return "this call works on no descriptor";
        if (k.fd || !parse_kind(val, r.kind))
            return "\"fd\" must be file, unix, inet, pipe or any, once";
        k.fd = true;
    } else if (is("nth")) {
        if (k.nth || !parse_uint(val, 1, 1000000, v))
            return "\"nth\" must be a number from 1, once";
        k.nth = true;
        r.nth = static_cast<uint32_t>(v);
    } else if (is("count")) {
        if (k.count || k.every || !parse_uint(val, 1, 1000000, v))
            return "\"count\" must be a number from 1, once, and not with \"every\"";
        k.count = true;
        r.count = static_cast<uint32_t>(v);
    } else if (is("errno")) {
        if (k.err || !parse_errno(val, r.err))
            return "\"errno\" must be a name such as ENOSPC or a number 1..4095, once";
        k.err = true;
    } else if (is("short")) {
        if (!d.shortable)
            return "\"short\" is for write and send only";
        if (k.shortlen || !parse_uint(val, 0, 1000000, v))
            return "\"short\" must be a byte count, once";
        k.shortlen = true;
        r.short_len = static_cast<long>(v);
    } else {
        return "unknown key";
    }
    return nullptr;
}

// Splits the next blank-separated word of `s` into `word`; false at the end
// or when the word is too long.
bool next_word(const char*& s, char* word, size_t cap, bool& too_long)
{
    while (*s == ' ' || *s == '\t')
        ++s;
    if (!*s)
        return false;
    size_t n = 0;
    while (s[n] && s[n] != ' ' && s[n] != '\t')
        ++n;
    too_long = n >= cap;
    copy_text(word, cap, s, n);
    s += n;
    return !too_long;
}

}  // namespace

bool glob_match(const char* p, const char* t)
{
    const char* star_p = nullptr;
    const char* star_t = nullptr;
    while (*t) {
        if (*p == '*') {
            star_p = ++p;
            star_t = t;
            continue;
        }
        bool ok = false;
        const char* next = p + 1;
        if (*p == '?') {
            ok = true;
        } else if (*p == '[') {
            const char* q = p + 1;
            bool negate = *q == '!' || *q == '^';
            if (negate)
                ++q;
            bool in = false;
            const char* first = q;
            while (*q && (*q != ']' || q == first)) {
                if (q[1] == '-' && q[2] && q[2] != ']') {
                    in = in || (*t >= q[0] && *t <= q[2]);
                    q += 3;
                } else {
                    in = in || *t == *q;
                    ++q;
                }
            }
            if (*q == ']') {
                ok = in != negate;
                next = q + 1;
            } else {
                ok = *t == '[';  // no closing bracket: a plain character
            }
        } else {
            ok = *p && *p == *t;
        }
        if (ok) {
            p = next;
            ++t;
        } else if (star_p) {
            p = star_p;
            t = ++star_t;
        } else {
            return false;
        }
    }
    while (*p == '*')
        ++p;
    return !*p;
}

const char* call_name(call c)
{
    size_t i = static_cast<size_t>(c);
    return i < static_cast<size_t>(call::count_) ? calls[i].name : "?";
}

const char* errno_name(int err)
{
    for (const errno_entry& e : errno_names) {
        if (e.err == err)
            return e.name;
    }
    return nullptr;
}

bool parse_rule(const char* text, rule& out, char* why, size_t why_len)
{
    rule r;
    // The canonical text: the words joined by one blank.
    size_t len = 0;
    const char* s = text;
    char word[path_max + 16];
    bool too_long = false;
    while (next_word(s, word, sizeof word, too_long)) {
        size_t w = strlen(word);
        if (len + w + 2 > sizeof r.text)
            return refuse(why, why_len, text, "longer than 199 characters");
        if (len)
            r.text[len++] = ' ';
        memcpy(r.text + len, word, w + 1);
        len += w;
    }
    if (too_long)
        return refuse(why, why_len, text, "a word longer than 143 characters");
    for (const char* c = r.text; *c; ++c) {
        if (static_cast<unsigned char>(*c) < 0x20 || *c == '"' || *c == 0x7f)
            return refuse(why, why_len, "(unprintable)", "a control character or a quote");
    }
    s = r.text;
    if (!next_word(s, word, sizeof word, too_long))
        return refuse(why, why_len, r.text, "empty");
    const call_desc* d = nullptr;
    for (size_t i = 0; i < static_cast<size_t>(call::count_); ++i) {
        if (strcmp(word, calls[i].name) == 0) {
            d = &calls[i];
            r.what = static_cast<call>(i);
        }
    }
    if (!d)
        return refuse(why, why_len, r.text,
                      "unknown call (open, write, rename, unlink, ftruncate, fsync, mkdir, "
                      "socket, bind, connect, send, recv, pipe2, spawn, select, poll)");
    seen_keys k{};
    while (next_word(s, word, sizeof word, too_long)) {
        if (const char* bad = apply_word(word, *d, r, k)) {
            char reason[sizeof word + 120];
            snprintf(reason, sizeof reason, "%s: %s", word, bad);
            return refuse(why, why_len, r.text, reason);
        }
    }
    if (k.err == k.shortlen)
        return refuse(why, why_len, r.text, "exactly one of errno=E... and short=N is needed");
    out = r;
    return true;
}

int arm(const rule& r, int owner, bool optional)
{
    int pick = -1;
    for (uint8_t want : {st_free, st_dead}) {
        for (size_t i = 0; i < max_rules && pick < 0; ++i) {
            if (slots[i].state.load(std::memory_order_acquire) == want)
                pick = static_cast<int>(i);
        }
    }
    if (pick < 0)
        return -1;
    slot& s = slots[pick];
    s.r = r;
    s.owner = owner;
    s.optional = optional;
    s.seen.store(0, std::memory_order_relaxed);
    s.fired.store(0, std::memory_order_relaxed);
    s.last_err.store(0, std::memory_order_relaxed);
    store_chars(s.last_path, "");
    s.state.store(st_live, std::memory_order_release);
    live_rules.fetch_add(1, std::memory_order_release);
    return pick;
}

void disarm(int i)
{
    if (i < 0 || static_cast<size_t>(i) >= max_rules)
        return;
    uint8_t live = st_live;
    if (slots[i].state.compare_exchange_strong(live, st_dead, std::memory_order_acq_rel))
        live_rules.fetch_sub(1, std::memory_order_release);
}

void disarm_owner(int owner)
{
    for (size_t i = 0; i < max_rules; ++i) {
        if (slots[i].state.load(std::memory_order_acquire) == st_live && slots[i].owner == owner)
            disarm(static_cast<int>(i));
    }
}

void disarm_all()
{
    for (size_t i = 0; i < max_rules; ++i)
        disarm(static_cast<int>(i));
}

void forget_all()
{
    for (slot& s : slots) {
        uint8_t dead = st_dead;
        s.state.compare_exchange_strong(dead, st_free, std::memory_order_acq_rel);
    }
}

int find_armed(const char* text, int owner)
{
    for (size_t i = 0; i < max_rules; ++i) {
        const slot& s = slots[i];
        if (s.state.load(std::memory_order_acquire) == st_live && s.owner == owner && strcmp(s.r.text, text) == 0)
            return static_cast<int>(i);
    }
    return -1;
}

bool slot_info(int i, slot_state& out)
{
    if (i < 0 || static_cast<size_t>(i) >= max_rules)
        return false;
    const slot& s = slots[i];
    uint8_t st = s.state.load(std::memory_order_acquire);
    if (st == st_free)
        return false;
    out.live = st == st_live;
    out.optional = s.optional;
    out.seen = s.seen.load(std::memory_order_relaxed);
    out.fired = s.fired.load(std::memory_order_acquire);
    out.last_call = static_cast<call>(s.last_call.load(std::memory_order_relaxed));
    out.last_err = s.last_err.load(std::memory_order_relaxed);
    load_chars(s.last_path, out.last_path);
    snprintf(out.text, sizeof out.text, "%s", s.r.text);
    return true;
}

void set_enabled(bool on)
{
    active.store(on, std::memory_order_release);
}

bool enabled()
{
    return active.load(std::memory_order_acquire);
}

bool armed(call c)
{
    if (!active.load(std::memory_order_relaxed) || passthrough_depth || live_rules.load(std::memory_order_acquire) == 0)
        return false;
    for (const slot& s : slots) {
        if (s.state.load(std::memory_order_acquire) == st_live && s.r.what == c)
            return true;
    }
    return false;
}

bool check(call c, int fd, const char* path, const char* path2, hit& out, fd_kind hint)
{
    if (!active.load(std::memory_order_relaxed) || passthrough_depth)
        return false;
    if (poll_hook hook = on_poll.load(std::memory_order_acquire)) {
        passthrough inner;
        hook();
    }
    if (live_rules.load(std::memory_order_acquire) == 0)
        return false;
    fd_kind kind = fd >= 0 ? kind_of(fd) : hint != fd_kind::unknown ? hint : path ? fd_kind::file : fd_kind::unknown;
    char fd_path[path_max];
    if (!path && fd >= 0) {
        path_of(fd, fd_path);
        path = fd_path;
    }
    bool found = false;
    const char* fired_path = path;
    for (size_t i = 0; i < max_rules; ++i) {
        slot& s = slots[i];
        if (s.state.load(std::memory_order_acquire) != st_live || s.r.what != c)
            continue;
        if (s.r.kind != fd_kind::any && s.r.kind != kind)
            continue;
        const char* matched = path;
        if (s.r.glob[0]) {
            if (path && path[0] && glob_match(s.r.glob, path))
                matched = path;
            else if (path2 && glob_match(s.r.glob, path2))
                matched = path2;
            else
                continue;
        }
        uint32_t n = s.seen.fetch_add(1, std::memory_order_relaxed) + 1;
        if (found || n < s.r.nth || (s.r.count != every && n - s.r.nth >= s.r.count))
            continue;
        found = true;
        fired_path = matched;
        s.last_call.store(static_cast<uint8_t>(c), std::memory_order_relaxed);
        s.last_err.store(s.r.err, std::memory_order_relaxed);
        store_chars(s.last_path, matched);
        s.fired.fetch_add(1, std::memory_order_release);
        out.slot = static_cast<int>(i);
        out.err = s.r.err;
        out.short_len = s.r.short_len;
    }
    if (found) {
        if (fire_hook hook = on_fire.load(std::memory_order_acquire)) {
            passthrough inner;
            hook(out.slot, c, fired_path ? fired_path : "", out);
        }
    }
    return found;
}

void track(int fd, fd_kind kind, const char* path)
{
    if (fd < 0 || fd >= max_fds || !active.load(std::memory_order_relaxed))
        return;
    store_chars(fds[fd].path, path ? path : "");
    fds[fd].kind.store(static_cast<uint8_t>(kind), std::memory_order_release);
}

void track_path(int fd, const char* path)
{
    if (fd < 0 || fd >= max_fds || !active.load(std::memory_order_relaxed))
        return;
    store_chars(fds[fd].path, path ? path : "");
}

void untrack(int fd)
{
    if (fd < 0 || fd >= max_fds)
        return;
    fds[fd].kind.store(0, std::memory_order_release);
    store_chars(fds[fd].path, "");
}

fd_kind kind_of(int fd)
{
    if (fd < 0 || fd >= max_fds)
        return fd_kind::unknown;
    return static_cast<fd_kind>(fds[fd].kind.load(std::memory_order_acquire));
}

void path_of(int fd, char (&out)[path_max])
{
    if (fd < 0 || fd >= max_fds) {
        out[0] = '\0';
        return;
    }
    load_chars(fds[fd].path, out);
}

void set_fire_hook(fire_hook f)
{
    on_fire.store(f, std::memory_order_release);
}

void set_poll_hook(poll_hook f)
{
    on_poll.store(f, std::memory_order_release);
}

passthrough::passthrough()
{
    ++passthrough_depth;
}

passthrough::~passthrough()
{
    --passthrough_depth;
}

bool in_passthrough()
{
    return passthrough_depth != 0;
}

}  // namespace dorvfault::core
