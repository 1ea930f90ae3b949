// Loading a radio's known APs from the flat configuration file, and the MAC
// text parser it uses.
#include <array>
#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "neighbours/nb_internal.h"

namespace {

constexpr const char* known_ap_key = "system:apList:knownApTable";
constexpr size_t max_config_line = 255;
constexpr size_t max_mac_text = 17;
constexpr std::string_view blanks = " \t\r\n";

// Attribute i of an entry is the first character of its i-th comma-separated
// token minus '0', whatever that character is: " 0" and a lone newline give
// non-zero values. Runs of commas count as one separator.
void parse_attributes(std::string_view rest, uint8_t* attrs, size_t count)
{
    size_t i = 0;
    while (!rest.empty() && i < count) {
        size_t comma = rest.find(',');
        std::string_view token = rest.substr(0, comma);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
        if (token.empty())
            continue;
        attrs[i++] = static_cast<uint8_t>(token[0] - '0');
    }
}

int hex_digit_value(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

int parse_mac(const char* text, uint8_t out[6])
{
    int pos = 0;
    for (int i = 0; i < 6; ++i) {
        while (text[pos] == ':' || text[pos] == '.' || text[pos] == '-')
            ++pos;
        int hi = hex_digit_value(text[pos]);
        if (hi < 0)
            return -1;
        int lo = hex_digit_value(text[pos + 1]);  // text[pos] is a digit, so pos + 1 is in bounds
        if (lo < 0)
            return -1;
        out[i] = static_cast<uint8_t>(hi << 4 | lo);
        pos += 2;
    }
    return pos;
}

// A MAC token longer than 17 characters is refused outright rather than
// parsed by its first 17: a cut token could name a different AP.
void parse_known_ap_line(known_ap_table* table, const char* text)
{
    uint8_t attrs[2] = {0xFF, 0};  // present, family
    std::string_view sv(text);
    size_t start = sv.find_first_not_of(blanks);
    size_t end = start == std::string_view::npos ? sv.size() : sv.find_first_of(blanks, start);
    std::string_view token = start == std::string_view::npos ? std::string_view{} : sv.substr(start, end - start);
    if (token.size() > max_mac_text) {
        log_msg(0, log_lvl::error, "[dorvand] Known-AP entry ignored: MAC text longer than %zu characters\n",
                max_mac_text);
        return;
    }
    std::array<char, max_mac_text + 1> mac_text{};
    token.copy(mac_text.data(), token.size());
    uint8_t mac[6];
    if (parse_mac(mac_text.data(), mac) < 0) {
        log_msg(0, log_lvl::error, "[dorvand] Known-AP entry ignored: bad MAC text \"%s\"\n", mac_text.data());
        return;
    }
    std::string_view rest = end < sv.size() ? sv.substr(end + 1) : std::string_view{};
    parse_attributes(rest, attrs, 2);
    add_to_ht(table, mac, attrs[0], attrs[1], 0, 0);
}

// Lines longer than 255 bytes are skipped whole (and logged once each):
// their head alone could yield a wrong entry, and their tail must not be
// mistaken for a line of its own.
void load_known_aps_from(known_ap_table* table, const char* name, byte_source& in)
{
    char prefix[255];
    snprintf(prefix, sizeof prefix, "%s:%s:", known_ap_key, name);
    std::array<char, max_config_line + 2> line{};
    for (;;) {
        bool had_newline = false;
        nb::line_status st = nb::read_line(in, line.data(), max_config_line, &had_newline);
        if (st == nb::line_status::end)
            break;
        if (st == nb::line_status::too_long) {
            log_msg(0, log_lvl::error, "[dorvand] Skipped a line of %s longer than %zu characters\n",
                    paths::config_file, max_config_line);
            continue;
        }
        if (!std::strstr(line.data(), prefix))
            continue;
        // The entry text keeps the line's newline: it ends the last attribute
        // token, and a line ending in a blank or a comma makes it a token.
        std::string entry(std::strrchr(line.data(), ':') + 1);  // the prefix holds a ':'
        if (had_newline)
            entry += '\n';
        parse_known_ap_line(table, entry.c_str());
    }
}

}  // namespace

void load_known_aps_text(known_ap_table* table, const char* name, const char* data, size_t size)
{
    byte_source in(data, size);
    load_known_aps_from(table, name, in);
}

void load_known_aps(known_ap_table* table, const char* name)
{
    file_ptr f = open_file(paths::config_file, "r");
    if (!f) {
        int err = errno;
        log_msg(1, log_lvl::error, "file pointer not opened [%d|%s]\n", err, strerror(err));
        return;
    }
    byte_source in(f.get());
    load_known_aps_from(table, name, in);
}

void reload_known_ap_table(int radio)
{
    known_ap_table* table = radio >= 0 && radio < 3 ? neighbours().known_ap_tables[radio] : nullptr;
    // GCOVR_EXCL_START: scans run only on radios that have a table
    if (!table)
        return;
    // GCOVR_EXCL_STOP
    char wlan[8];
    snprintf(wlan, sizeof wlan, "wlan%d", radio);
    load_known_aps(table, wlan);
    traverse_hash_table(table, wlan);
}
