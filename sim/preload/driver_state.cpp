// Parser of the simulated driver's state file. Every value is range-checked;
// the first bad line rejects the whole file.
#include "driver_state.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace dorvsim {

namespace {

constexpr std::string_view header = "dorvsim-state";
constexpr int format_version = 1;
constexpr size_t max_line = 1024;
constexpr size_t max_items = 255;  // the driver reports counts in one byte
constexpr size_t max_ssid = 32;

struct line_cursor {
    std::string_view rest;

    // Next whitespace-separated word; empty at the end of the line.
    std::string_view word()
    {
        size_t b = rest.find_first_not_of(" \t");
        if (b == std::string_view::npos) {
            rest = {};
            return {};
        }
        size_t e = rest.find_first_of(" \t", b);
        std::string_view w = rest.substr(b, e == std::string_view::npos ? std::string_view::npos : e - b);
        rest = e == std::string_view::npos ? std::string_view{} : rest.substr(e);
        return w;
    }
};

class parse_error {
  public:
    explicit parse_error(std::string text) : text_(std::move(text)) {}
    const std::string& text() const { return text_; }

  private:
    std::string text_;
};

long long number(std::string_view w, long long lo, long long hi, const char* what)
{
    std::string s(w);
    char* end = nullptr;
    errno = 0;
    long long v = strtoll(s.c_str(), &end, 10);
    if (s.empty() || *end != '\0' || errno != 0 || v < lo || v > hi)
        throw parse_error(std::string("bad ") + what + " \"" + s + "\"");
    return v;
}

unsigned long long unsigned_number(std::string_view w, const char* what)
{
    std::string s(w);
    char* end = nullptr;
    errno = 0;
    unsigned long long v = strtoull(s.c_str(), &end, 10);
    if (s.empty() || s[0] == '-' || *end != '\0' || errno != 0)
        throw parse_error(std::string("bad ") + what + " \"" + s + "\"");
    return v;
}

// "ok" or "fail <errno>".
outcome parse_outcome(line_cursor& c)
{
    std::string_view w = c.word();
    if (w == "ok")
        return {};
    if (w == "fail")
        return {false, static_cast<int>(number(c.word(), 1, 4095, "errno"))};
    throw parse_error("expected ok or fail, got \"" + std::string(w) + "\"");
}

void parse_mac(std::string_view w, uint8_t (&out)[6])
{
    unsigned b[6];
    char tail;
    std::string s(w);
    if (sscanf(s.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &b[0], &b[1], &b[2], &b[3], &b[4], &b[5], &tail) != 6)
        throw parse_error("bad BSSID \"" + s + "\"");
    for (int i = 0; i < 6; ++i)
        out[i] = static_cast<uint8_t>(b[i]);
}

int hex_digit(char ch)
{
    if (ch >= '0' && ch <= '9')
        return ch - '0';
    if (ch >= 'a' && ch <= 'f')
        return ch - 'a' + 10;
    if (ch >= 'A' && ch <= 'F')
        return ch - 'A' + 10;
    throw parse_error("bad SSID escape");
}

// The SSID is the rest of the line after one space, with the escapes \\ and
// \xHH for bytes that a line cannot hold.
std::string parse_ssid(std::string_view rest)
{
    if (!rest.empty() && (rest[0] == ' ' || rest[0] == '\t'))
        rest.remove_prefix(1);
    std::string out;
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] != '\\') {
            out.push_back(rest[i]);
        } else if (i + 1 < rest.size() && rest[i + 1] == '\\') {
            out.push_back('\\');
            i += 1;
        } else if (i + 3 < rest.size() && rest[i + 1] == 'x') {
            out.push_back(static_cast<char>(hex_digit(rest[i + 2]) * 16 + hex_digit(rest[i + 3])));
            i += 3;
        } else {
            throw parse_error("bad SSID escape");
        }
    }
    if (out.size() > max_ssid)
        throw parse_error("SSID longer than 32 bytes");
    return out;
}

sim_radio& radio_of(driver_state& st, std::string_view w)
{
    return st.radio[number(w, 0, sim_radios - 1, "radio")];
}

void parse_voice(line_cursor& c, sim_radio& r)
{
    line_cursor peek = c;
    if (peek.word() == "fail") {
        r.voice = parse_outcome(c);
        return;
    }
    r.voice = {};
    r.voice_bit = static_cast<uint8_t>(number(c.word(), 0, 255, "voice bit"));
    r.prev_voice_pkts = unsigned_number(c.word(), "packet count");
    r.cur_voice_pkts = unsigned_number(c.word(), "packet count");
}

void parse_chan_info(line_cursor& c, sim_radio& r)
{
    line_cursor peek = c;
    if (peek.word() == "fail") {
        r.chan_info = parse_outcome(c);
        return;
    }
    r.chan_info = {};
    r.chan_info_given = true;
    r.chan_info_list.clear();
    for (std::string_view w = c.word(); !w.empty(); w = c.word()) {
        if (r.chan_info_list.size() >= max_items)
            throw parse_error("more than 255 channels");
        r.chan_info_list.push_back(static_cast<uint8_t>(number(w, 0, 255, "channel")));
    }
}

void parse_report(line_cursor& c, sim_radio& r)
{
    std::string_view mode = c.word();
    r.report = {};
    r.report_fail_at = 0;
    if (mode == "failat") {
        r.report_fail_at = static_cast<int>(number(c.word(), 1, 1000000, "request number"));
        r.report_fail_err = static_cast<int>(number(c.word(), 1, 4095, "errno"));
    } else if (mode == "fail") {
        r.report = {false, static_cast<int>(number(c.word(), 1, 4095, "errno"))};
    } else if (mode != "ok") {
        throw parse_error("expected ok, fail or failat");
    }
}

void parse_radio(line_cursor& c, driver_state& st)
{
    sim_radio& r = radio_of(st, c.word());
    std::string_view what = c.word();
    if (what == "acs") {
        r.acs_start = parse_outcome(c);
    } else if (what == "chanscan") {
        r.chan_scan = parse_outcome(c);
    } else if (what == "voice") {
        parse_voice(c, r);
    } else if (what == "chaninfo") {
        parse_chan_info(c, r);
    } else if (what == "report") {
        parse_report(c, r);
    } else if (what == "overflow") {
        std::string_view mode = c.word();
        if (mode != "nbss" && mode != "rc7")
            throw parse_error("overflow is nbss or rc7");
        r.overflow_rc7 = mode == "rc7";
    } else {
        throw parse_error("unknown radio setting \"" + std::string(what) + "\"");
    }
    if (!c.word().empty())
        throw parse_error("extra words");
}

void parse_chan(line_cursor& c, driver_state& st)
{
    sim_radio& r = radio_of(st, c.word());
    if (r.channels.size() >= max_items)
        throw parse_error("more than 255 channels in a report");
    acs_channel ch;
    ch.ieee_chan = static_cast<uint8_t>(number(c.word(), 0, 255, "channel"));
    ch.max_rssi = static_cast<int32_t>(number(c.word(), INT32_MIN, INT32_MAX, "max_rssi"));
    ch.min_rssi = static_cast<int32_t>(number(c.word(), INT32_MIN, INT32_MAX, "min_rssi"));
    ch.noise_floor = static_cast<int16_t>(number(c.word(), INT16_MIN, INT16_MAX, "noise_floor"));
    ch.spectral_load = static_cast<int16_t>(number(c.word(), INT16_MIN, INT16_MAX, "spectral_load"));
    ch.chan_load = static_cast<uint32_t>(number(c.word(), 0, UINT32_MAX, "chan_load"));
    ch.chan_rank = static_cast<int32_t>(number(c.word(), INT32_MIN, INT32_MAX, "chan_rank"));
    if (!c.word().empty())
        throw parse_error("extra words");
    r.channels.push_back(std::move(ch));
}

void parse_bss(line_cursor& c, driver_state& st)
{
    sim_radio& r = radio_of(st, c.word());
    auto ieee = static_cast<uint8_t>(number(c.word(), 0, 255, "channel"));
    acs_channel* ch = nullptr;
    for (auto& candidate : r.channels) {
        if (candidate.ieee_chan == ieee)
            ch = &candidate;
    }
    if (!ch)
        throw parse_error("bss for a channel not declared before it");
    if (ch->neighbours.size() >= max_items)
        throw parse_error("more than 255 BSSs on a channel");
    acs_neighbour b{};
    parse_mac(c.word(), b.bssid);
    b.rssi = static_cast<int32_t>(number(c.word(), INT32_MIN, INT32_MAX, "rssi"));
    b.phymode = static_cast<int32_t>(number(c.word(), INT32_MIN, INT32_MAX, "phymode"));
    b.vx_ap_type = static_cast<uint8_t>(number(c.word(), 0, 255, "vx_ap_type"));
    std::string ssid = parse_ssid(c.rest);
    memcpy(b.ssid, ssid.data(), ssid.size());  // at most 32 bytes: the entry stays terminated
    ch->neighbours.push_back(b);
}

void parse_cac(line_cursor& c, driver_state& st)
{
    sim_cac entry;
    entry.ifname = std::string(c.word());
    if (entry.ifname.empty() || entry.ifname.size() > 15)
        throw parse_error("bad interface name");
    line_cursor peek = c;
    if (peek.word() == "fail")
        entry.result = parse_outcome(c);
    else
        entry.value = static_cast<int32_t>(number(c.word(), INT32_MIN, INT32_MAX, "CAC value"));
    if (!c.word().empty())
        throw parse_error("extra words");
    st.cac.push_back(std::move(entry));
}

void parse_line(std::string_view line, bool& seen_header, driver_state& st)
{
    line_cursor c{line};
    std::string_view key = c.word();
    if (key.empty() || key[0] == '#')
        return;
    if (!seen_header) {
        if (key != header || number(c.word(), 0, 1000, "version") != format_version)
            throw parse_error("first line must be \"dorvsim-state 1\"");
        seen_header = true;
        return;
    }
    if (key == "radio")
        parse_radio(c, st);
    else if (key == "chan")
        parse_chan(c, st);
    else if (key == "bss")
        parse_bss(c, st);
    else if (key == "cac")
        parse_cac(c, st);
    else
        throw parse_error("unknown line \"" + std::string(key) + "\"");
}

}  // namespace

bool parse_driver_state(const std::string& text, driver_state& out, std::string& error)
{
    out = driver_state{};
    bool seen_header = false;
    size_t line_no = 0;
    size_t pos = 0;
    try {
        while (pos < text.size()) {
            size_t end = text.find('\n', pos);
            if (end == std::string::npos)
                end = text.size();
            ++line_no;
            if (end - pos > max_line)
                throw parse_error("line too long");
            parse_line(std::string_view(text).substr(pos, end - pos), seen_header, out);
            pos = end + 1;
        }
        if (!seen_header)
            throw parse_error("no \"dorvsim-state 1\" line");
    } catch (const parse_error& e) {
        error = "line " + std::to_string(line_no) + ": " + e.text();
        return false;
    }
    return true;
}

}  // namespace dorvsim
