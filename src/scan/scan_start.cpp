// The scheduler's start-up timer: the first 802.11r status read, then the
// bands' rogue-AP checks.
#include "core/ft_status.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"

void start_scan_scheduler(intptr_t, intptr_t)
{
    refresh_ft_status();
    start_rogue_checks();
}
