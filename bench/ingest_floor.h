// The floor of scan ingestion: only the work that storing a scan report must
// do, with the daemon's schema, statements and log texts. For each channel
// entry of the report a channel row through one connection; for each BSS
// its own connection: open, SELECT, INSERT or UPDATE, close, in autocommit.
// Every log line is formatted (measured, then written into an exactly sized
// block), and the log file opened without following a link, checked as the
// caller's own regular file, appended to and closed, rotated at its size
// limit. Nothing else: no driver, no key holders.
#pragma once

#include <vector>

#include "scan/driver.h"

struct floor_channel {
    acs_report stats;  // the channel entry as the driver answers it
    std::vector<acs_neighbour> bss;
};

// Stores `report` into `db_path` and logs to `log_path` (512 KiB, two
// backups), with the time stamp texts the daemon stores with each row.
void floor_ingest(const std::vector<floor_channel>& report, const char* db_path, const char* log_path, const char* date,
                  const char* epoch);
