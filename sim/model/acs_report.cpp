// The driver's answer to one ACS report request, from its channel list.
#include "acs_report.h"

#include <algorithm>
#include <cstring>

namespace dorvsim {

namespace {

void fill_statistics(const acs_channel& ch, acs_report& rep)
{
    rep.ieee_chan = ch.ieee_chan;
    rep.chan_nbss = static_cast<uint8_t>(ch.neighbours.size());
    rep.max_rssi = ch.max_rssi;
    rep.min_rssi = ch.min_rssi;
    rep.noise_floor = ch.noise_floor;
    rep.spectral_load = ch.spectral_load;
    rep.chan_load = ch.chan_load;
    rep.chan_rank = ch.chan_rank;
}

}  // namespace

acs_answer acs_answer_request(const std::vector<acs_channel>& channels, acs_report& report, bool overflow_rc7)
{
    acs_answer answer;
    report.count = static_cast<uint8_t>(channels.size());
    if (report.wanted >= channels.size()) {
        // Asked past the end (as for entry 0 of an empty report): the count
        // is the answer, the entry stays empty.
        fill_statistics(acs_channel{}, report);
        answer.past_end = true;
        return answer;
    }
    const acs_channel& ch = channels[report.wanted];
    fill_statistics(ch, report);
    // The buffer is the caller's memory, of any alignment: entries go in byte by byte.
    auto* out = reinterpret_cast<uint8_t*>(report.nbr.pointer);
    size_t room = out ? report.nbr_length / sizeof(acs_neighbour) : 0;
    answer.filled = std::min(room, ch.neighbours.size());
    for (size_t i = 0; i < answer.filled; ++i)
        memcpy(out + i * sizeof(acs_neighbour), &ch.neighbours[i], sizeof(acs_neighbour));
    if (overflow_rc7 && out && report.nbr_length > 0 && answer.filled < ch.neighbours.size())
        answer.rc = 7;
    return answer;
}

}  // namespace dorvsim
