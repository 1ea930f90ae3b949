// The ap2_macaddr file /tmp/ap2_macaddr.txt: its lines as the rewrite reads
// them, through the edit of a BSSID added or deleted on a VAP's line or of
// the VAP's line removed, into the text the rewrite would write.
//
// Input: byte 0 the operation (bits 0-1: 0 delete, 1 add, 2 or 3 remove the
// VAP's line) and the VAP (bits 2-3 its radio, bits 4-7 its VAP), byte 1 the
// BSSID's last byte, the rest the file.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "fuzz_support.h"
#include "neighbours/nb_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2)
        return 0;
    const int op = data[0] & 3;
    char key[32];
    snprintf(key, sizeof key, "ap2_macaddr_wifi%dvap%d", ((data[0] >> 2) & 3) % 3, (data[0] >> 4) % 10);
    char text[18];
    snprintf(text, sizeof text, "00:11:22:33:44:%02X", data[1]);

    byte_source in(data + 2, size - 2);
    char line[nb::ap2mac_max_line + 2];
    std::string last_token;
    nb::line_status st;
    while ((st = nb::read_line(in, line, nb::ap2mac_max_line)) != nb::line_status::end) {
        if (st == nb::line_status::too_long)
            continue;
        std::optional<std::string> kept =
            op <= 1 ? nb::ap2mac_update_line(line, key, text, op, last_token) : nb::ap2mac_remove_line(line, key);
        if (!kept)
            continue;
        fuzz::check(kept->size() <= nb::ap2mac_max_line, "rewritten line longer than the file's bound");
        fuzz::check(op <= 1 || kept->find(key) == std::string::npos, "removed VAP's line still written");
        // A deletion leaves no token naming the BSSID on the rebuilt line.
        const std::string prefix = std::string(key) + "=";
        if (op == 0 && std::string_view(line).find(key) != std::string_view::npos &&
            kept->compare(0, prefix.size(), prefix) == 0) {
            std::string rest = " " + kept->substr(prefix.size()) + " ";
            fuzz::check(rest.find(" " + std::string(text) + " ") == std::string::npos,
                        "deleted BSSID still on the line");
        }
    }
    return 0;
}
