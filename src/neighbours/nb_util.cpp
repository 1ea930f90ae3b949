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

bool read_record(FILE* f, key_holder_record& out)
{
    record_bytes bytes{};
    if (fread(bytes.data(), 1, bytes.size(), f) != bytes.size())
        return false;
    out = decode_record(bytes);
    return true;
}

std::array<char, 18> neighbour_bssid_text(const uint8_t mac[6], uint8_t last, int k, int v,
                                          const vap_offsets& off)
{
    auto low = static_cast<uint8_t>(last - off.eth_offset + off.wlan_diff * k + v + off.first_vap_offset);
    std::array<char, 18> text{};
    snprintf(text.data(), text.size(), "%02X:%02X:%02X:%02X:%02X:%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
             low);
    return text;
}

}  // namespace nb
