// The fuzz targets' scratch file system, state reset, and the shell stand-ins:
// this file defines shell_run and shell_read, so the linker never takes the
// daemon's own (base/spawn.cpp) for a target. Starting a shell per input
// would bound a target to a few hundred inputs a second; the stand-ins answer
// the few commands the fuzzed code runs from the scratch files instead.
#include "fuzz_support.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

#include "base/paths.h"
#include "base/spawn.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

namespace fuzz {

void fail(const char* what)
{
    fprintf(stderr, "fuzz check failed: %s\n", what);
    abort();
}

void enter_scratch()
{
    auto mounted = [](const char* src, const char* target, const char* type, unsigned long flags) {
        return mount(src, target, type, flags, nullptr) == 0;
    };
    if (unshare(CLONE_NEWNS) != 0 || !mounted(nullptr, "/", nullptr, MS_REC | MS_PRIVATE) ||
        !mounted("tmpfs", "/tmp", "tmpfs", 0) || !mounted("tmpfs", "/var", "tmpfs", 0)) {
        perror("fuzz targets need root for a private mount namespace");
        exit(1);
    }
    // Lines the code sends to syslog must not reach the host's.
    if (access("/dev/log", F_OK) == 0 && !mounted("/dev/null", "/dev/log", nullptr, MS_BIND)) {
        perror("cannot hide /dev/log");
        exit(1);
    }
    mkdir("/tmp/run", 0755);
}

void reset_neighbours()
{
    neighbour_state& n = neighbours();
    free_kh_list();
    dlist_init(&n.kh_list);
    n.kh_list_nonempty = 0;
    fresh_tables(0);
    n.ft_enabled_vaps = 0;
    for (const char* p :
         {paths::key_holders, paths::key_holders_tmp, paths::ap2mac, paths::ap2mac_tmp, paths::key_changes})
        unlink(p);
}

void fresh_tables(int radios)
{
    for (known_ap_table*& t : neighbours().known_ap_tables) {
        free_known_ap_table(t);
        t = nullptr;
    }
    for (int r = 0; r < radios && r < 3; ++r)
        neighbours().known_ap_tables[r] = create_hash_table();
}

}  // namespace fuzz

// ---- Shell stand-ins ---------------------------------------------------------

int shell_run(size_t, const char*, ...)
{
    return 0;  // the transition script and the checks: started and ended well
}

// `grep "KEY" FILE` prints the file's lines holding KEY; `date` and
// `date +%s` print a fixed time; anything else prints nothing.
int shell_read(const char* command, std::string& out, size_t max_bytes)
{
    out.clear();
    if (std::strcmp(command, "date") == 0) {
        out = "Tue Nov 24 02:28:15 UTC 2026\n";
    } else if (std::strcmp(command, "date +%s") == 0) {
        out = "1795487295\n";
    } else if (std::strncmp(command, "grep \"", 6) == 0) {
        std::string rest(command + 6);
        size_t quote = rest.find("\" ");
        if (quote != std::string::npos) {
            std::string key = rest.substr(0, quote);
            std::ifstream lines(rest.substr(quote + 2), std::ios::binary);
            for (std::string line; std::getline(lines, line);)
                if (line.find(key) != std::string::npos)
                    out += line + "\n";
        }
    }
    if (out.size() > max_bytes)
        out.resize(max_bytes);
    return 0;
}
