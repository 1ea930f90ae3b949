// The fault injector's core, shared by the simulator's preload library and
// the unit-test library: the rule language, the armed rules, the
// descriptors' kinds and paths, and the check every interposed call makes.
// Everything on the path of an interposed call is lock-free and allocates
// nothing, so that calls made from signal handlers (write) stay safe.
#pragma once

#include <dlfcn.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace dorvfault::core {

// The calls as rules name them; each stands for a group of C functions.
// clang-format off
enum class call : uint8_t {
    open, write, rename, unlink, ftruncate, fsync, mkdir, socket, bind, connect, send, recv, pipe2, spawn,
    select, poll, sigaction, thread, daemon, count_
};
// clang-format on

// What a descriptor is; `any` only in rules.
enum class fd_kind : uint8_t { unknown, file, unix_sock, inet, pipe, other, any };

constexpr size_t max_rules = 64;
constexpr size_t path_max = 128;  // longer paths are matched on their first 127 bytes
constexpr size_t text_max = 200;  // a rule's text
constexpr uint32_t every = 0;     // `count` of a rule that keeps failing

struct rule {
    call what = call::open;
    fd_kind kind = fd_kind::any;
    char glob[path_max] = {};  // empty: any path
    uint32_t nth = 1;          // first matching call that fails, 1-based
    uint32_t count = 1;        // consecutive failures, or `every`
    int err = 0;               // errno of the failure; 0 with a short write or send
    long short_len = -1;       // write or send at most this many bytes; -1: not a short rule
    char text[text_max] = {};  // the rule as written, blanks collapsed
};

// Parses one rule. False with a message naming the rule in `why` when it is
// refused. Allocates nothing.
bool parse_rule(const char* text, rule& out, char* why, size_t why_len);

// fnmatch-style matching without flags: `*`, `?`, `[set]`, `[!set]`, ranges.
bool glob_match(const char* pattern, const char* text);

const char* call_name(call c);
const char* errno_name(int err);  // "ENOSPC", or null for a number without a name

// The outcome of a check that fired.
struct hit {
    int slot = -1;
    int err = 0;
    long short_len = -1;
};

// Arms a parsed rule; returns its slot, or -1 when every slot is taken.
// `owner` tells rule sets apart (the environment's, the control file's, the
// tests'). Not for concurrent use by several arming threads.
int arm(const rule& r, int owner, bool optional);
void disarm(int slot);
void disarm_owner(int owner);  // every rule of that owner
void disarm_all();
void forget_all();                            // disarmed rules' slots become free, their counts gone
int find_armed(const char* text, int owner);  // the slot of a live rule with that text, or -1

struct slot_state {
    bool live = false;
    bool optional = false;
    uint32_t seen = 0;   // matching calls so far
    uint32_t fired = 0;  // failures injected so far
    call last_call = call::open;
    int last_err = 0;
    char last_path[path_max] = {};
    char text[text_max] = {};
};
bool slot_info(int slot, slot_state& out);

// Whether the interposers act at all. The preload library turns them on in
// the daemon alone; the unit-test library has them on from the start.
void set_enabled(bool on);
bool enabled();

// Called with each child pid that fork or posix_spawn made, in the parent,
// before the call returns (the simulator's clock lists it); null: nothing.
extern void (*child_started)(int pid);

// Decides one call: true (with `out`) when a rule fails it. `fd` is the
// descriptor the call works on (-1: none); `path` and `path2` the paths it
// names (null: the descriptor's path); `kind` the kind of a descriptor
// about to be made (socket), when `fd` is -1. Safe in a signal handler.
bool check(call c, int fd, const char* path, const char* path2, hit& out, fd_kind kind = fd_kind::unknown);

// Whether any live rule names the call: the stdio interposers take the
// slow way through the interposed write only then.
bool armed(call c);

// The descriptor table, filled by the interposers that create descriptors.
void track(int fd, fd_kind kind, const char* path);
void track_path(int fd, const char* path);  // bind, connect: same kind, new path
void untrack(int fd);
fd_kind kind_of(int fd);
void path_of(int fd, char (&out)[path_max]);

// Called with every firing, after it is counted (in the thread, perhaps the
// signal handler, that made the call).
using fire_hook = void (*)(int slot, call c, const char* path, const hit& h);
void set_fire_hook(fire_hook f);

// Called at the start of every check (before matching): lets the preload
// library re-read its control file.
using poll_hook = void (*)();
void set_poll_hook(poll_hook f);

// Calls the C library makes on behalf of the injector itself are neither
// counted nor failed while one of these is alive on the thread.
class passthrough {
  public:
    passthrough();
    ~passthrough();
    passthrough(const passthrough&) = delete;
    passthrough& operator=(const passthrough&) = delete;
};
bool in_passthrough();

// Resolves the next definition of a C-library function once.
template <typename F> F next_fn(std::atomic<void*>& slot, const char* name)
{
    void* p = slot.load(std::memory_order_acquire);
    if (!p) {
        p = dlsym(RTLD_NEXT, name);
        slot.store(p, std::memory_order_release);
    }
    return reinterpret_cast<F>(p);
}

}  // namespace dorvfault::core
