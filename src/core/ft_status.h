// The 802.11r (fast transition) status of the VAPs: ft_enabled_vaps filled
// from the configuration store, and the SIGRTMIN status-change update.
#pragma once

#include <cstdint>

// Reads the 11rStatus of every VAP into ft_enabled_vaps and reloads the
// key-holder file when any VAP is enabled. Takes config_lock for its whole
// run. Event-loop thread (start-up check) or signal thread (after an update).
void refresh_ft_status();

// The work of one SIGRTMIN (signo): re-reads the VAPs named by `value`, reports each
// change to every key holder, runs the transition script, then refreshes.
// Signal thread only.
void ft_status_update(int signo, int32_t value);
