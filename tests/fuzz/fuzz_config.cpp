// The configuration file /tmp/run/config: the known-AP lines of every radio
// into their tables, and the rogue-AP setting's look-up output. The line
// reader is also checked against the file's own lines: one line read per
// line of the text, however long and whatever bytes it holds, so the tail
// of an over-long line is never taken for a line of its own.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "board/roam_lib.h"
#include "fuzz_support.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"

namespace {

constexpr size_t max_config_line = 255;

void check_line_count(const char* text, size_t size)
{
    size_t expected = 0;
    for (size_t start = 0; start < size; ++expected) {
        const void* nl = std::memchr(text + start, '\n', size - start);
        start = nl ? static_cast<size_t>(static_cast<const char*>(nl) - text) + 1 : size;
    }
    byte_source in(text, size);
    char line[max_config_line + 2];
    size_t seen = 0;
    size_t len = 0;
    nb::line_status st;
    while ((st = nb::read_line(in, line, max_config_line, nullptr, &len)) != nb::line_status::end) {
        fuzz::check(st == nb::line_status::too_long || len <= max_config_line, "line longer than its bound");
        ++seen;
    }
    fuzz::check(seen == expected, "lines read differ from the lines of the text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto* text = reinterpret_cast<const char*>(data);
    fuzz::fresh_tables(3);
    static constexpr const char* names[3] = {"wlan0", "wlan1", "wlan2"};
    for (int r = 0; r < 3; ++r)
        load_known_aps_text(neighbours().known_ap_tables[r], names[r], text, size);
    check_line_count(text, size);
    parse_rogue_ap_detection(text, size);
    fuzz::fresh_tables(0);
    return 0;
}
