// The driver's ACS report as the driver keeps it: per channel the statistics
// and the neighbours heard there, and the driver's answer to one debug
// request read from them. The simulated driver, the scan unit tests' fake
// driver and the scan report fuzz target all answer through it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "scan/driver.h"

namespace dorvsim {

// One channel entry of the report.
struct acs_channel {
    uint8_t ieee_chan = 0;
    int32_t max_rssi = 0;
    int32_t min_rssi = 0;
    int16_t noise_floor = 0;
    int16_t spectral_load = 0;
    uint32_t chan_load = 0;
    int32_t chan_rank = 0;
    std::vector<acs_neighbour> neighbours;  // at most 255: the driver counts them in one byte
};

// What one request was answered with.
struct acs_answer {
    int rc = 0;             // the request's result: 0, or 7 for a neighbour buffer too small
    bool past_end = false;  // the entry asked for is not in the report
    size_t filled = 0;      // neighbour entries written into the buffer
};

// Answers one ACS report request from `channels`, as the driver does: writes
// the entry count and the statistics of entry `report.wanted` (all zero past
// the end), and copies as many of its neighbours as the neighbour buffer
// (`report.nbr`, `report.nbr_length` bytes) holds. A buffer too small for
// all of them is told by `chan_nbss` alone, or with `overflow_rc7` also by
// the result 7. Any thread; touches nothing but `report` and its buffer.
acs_answer acs_answer_request(const std::vector<acs_channel>& channels, acs_report& report, bool overflow_rc7);

}  // namespace dorvsim
