// The simulated driver's state: what each radio answers, read from the
// line-based state file that the test harness writes (format described in
// sim/driver_state.py, which writes it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "../model/acs_report.h"

namespace dorvsim {

inline constexpr int sim_radios = 3;

// Result of a request: success, or failure with an errno value.
struct outcome {
    bool ok = true;
    int err = 0;
};

struct sim_radio {
    outcome acs_start;
    outcome chan_scan;
    outcome voice;
    outcome chan_info;
    outcome report;
    int report_fail_at = 0;  // this debug request (1-based, since loading) fails
    int report_fail_err = 0;
    bool overflow_rc7 = false;  // a too-small neighbour buffer is reported with result 7
    uint8_t voice_bit = 0;
    uint64_t prev_voice_pkts = 0;
    uint64_t cur_voice_pkts = 0;
    bool chan_info_given = false;  // else the report's channels are the list
    std::vector<uint8_t> chan_info_list;
    std::vector<acs_channel> channels;  // the ACS report, at most 255
};

struct sim_cac {
    std::string ifname;
    outcome result;
    int32_t value = 0;
};

struct driver_state {
    sim_radio radio[sim_radios];
    std::vector<sim_cac> cac;
};

// Parses the state file's text. On failure returns false with a message
// naming the line; `out` is then unspecified.
bool parse_driver_state(const std::string& text, driver_state& out, std::string& error);

}  // namespace dorvsim
