// The 802.11r (fast transition) status of the VAPs: ft_enabled_vaps filled
// from the configuration store, and the SIGRTMIN status-change update.
#pragma once

#include <cstdint>
#include <mutex>

struct dbcom_handle;

// What the module owns for the life of the process.
struct ft_shared {
    // The configuration-store handle, made at start-up, closed at exit.
    dbcom_handle* config_handle = nullptr;
    // One configuration-store transaction at a time in the whole process:
    // held for a whole refresh and a whole SIGRTMIN update.
    std::timed_mutex config_lock;
};
ft_shared& ft_state();

// Reads the 11rStatus of every VAP into ft_enabled_vaps and reloads the
// key-holder file when any VAP is enabled. Takes config_lock for its whole
// run. Event-loop thread (start-up check) or signal thread (after an update).
void refresh_ft_status();

// The work of one SIGRTMIN (signo): re-reads the VAPs named by `value`, reports each
// change to every key holder, runs the transition script, then refreshes.
// Signal thread only.
void ft_status_update(int signo, int32_t value);
