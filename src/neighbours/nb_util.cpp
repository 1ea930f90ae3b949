// Small helpers shared by the neighbour module's files: the key-holder record
// image, a bounded line reader and the neighbour BSSID text.
#include <cstring>

#include "neighbours/nb_internal.h"

namespace nb {

record_bytes encode_record(const kh_entry& entry)
{
    record_bytes out{};
    key_holder_record rec{};
    std::memcpy(rec.mac, entry.mac, sizeof rec.mac);
    rec.active = entry.active;
    rec.family = entry.family;
    std::memcpy(out.data(), &rec, sizeof rec);
    return out;
}

key_holder_record decode_record(const record_bytes& bytes)
{
    key_holder_record rec{};
    std::memcpy(&rec, bytes.data(), sizeof rec);
    return rec;
}

bool read_record(byte_source& in, key_holder_record& out)
{
    record_bytes bytes{};
    if (in.read(bytes.data(), bytes.size()) != bytes.size())
        return false;
    out = decode_record(bytes);
    return true;
}

bool read_record(FILE* f, key_holder_record& out)
{
    byte_source in(f);
    return read_record(in, out);
}

line_status read_line(byte_source& in, char* buf, size_t max_len, bool* had_newline, size_t* len)
{
    if (had_newline)
        *had_newline = false;
    size_t n = 0;
    int c = EOF;
    // At most max_len + 1 bytes: one more than a line may hold tells an
    // over-long line.
    while (n <= max_len && (c = in.get()) != EOF && c != '\n')
        buf[n++] = static_cast<char>(c);
    buf[n] = '\0';
    if (len)
        *len = n;
    if (c == '\n') {
        if (had_newline)
            *had_newline = true;
        return line_status::ok;
    }
    if (n <= max_len)
        return n == 0 ? line_status::end : line_status::ok;  // the last line, without a newline
    do
        c = in.get();
    while (c != '\n' && c != EOF);
    return line_status::too_long;
}

line_status read_line(FILE* f, char* buf, size_t max_len, bool* had_newline)
{
    byte_source in(f);
    return read_line(in, buf, max_len, had_newline);
}

std::array<char, 18> neighbour_bssid_text(const uint8_t mac[6], uint8_t last, int k, int v, const vap_offsets& off)
{
    auto low = static_cast<uint8_t>(last - off.eth_offset + off.wlan_diff * k + v + off.first_vap_offset);
    std::array<char, 18> text{};
    snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4], low);
    return text;
}

}  // namespace nb
