// Board and configuration-file lookups.
#include "board/roam_lib.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/byte_source.h"
#include "base/files.h"
#include "base/log.h"
#include "base/paths.h"
#include "base/spawn.h"

const product_info product_table[product_table_rows] = {
    {"TRV118", 2, 0},  {"TRV113", 2, 0}, {"TRV146", 3, 1}, {"TRV162", 3, 1},  {"TRM204", 2, 0},
    {"TRM204K", 2, 0}, {"TRM226", 2, 0}, {"TRM238", 3, 1}, {"TRM238P", 3, 2}, {"TRM241P", 3, 2},
    {"TRM209", 2, 0},  {"TRM221", 2, 0}, {"TRM213", 2, 0}, {"TRM233", 2, 0},
};

namespace {
constexpr size_t line_bound = 256;
constexpr size_t rogue_word_max = 7;
}  // namespace

namespace {

// One line as fgets reads it into a buffer of `size` bytes: at most size - 1
// bytes, up to and including a newline, then a NUL. Returns the bytes read
// (0 at the end); a line is measured by them, NULs included.
size_t read_line_part(byte_source& in, char* buf, size_t size)
{
    size_t n = 0;
    int c;
    while (n + 1 < size && (c = in.get()) != EOF) {
        buf[n++] = static_cast<char>(c);
        if (c == '\n')
            break;
    }
    buf[n] = '\0';
    return n;
}

int scan_key_value(byte_source& in, const char* path, const char* key, char delim, char* out, size_t out_size)
{
    char line[line_bound];
    while (size_t n = read_line_part(in, line, sizeof line)) {
        if (!strstr(line, key))
            continue;
        char* value = strchr(line, delim);
        if (!value)
            continue;
        ++value;
        if (*value == ' ')
            ++value;
        if (!out)
            return atoi(value);
        size_t len = n - static_cast<size_t>(value - line);
        // A copy bounded by the value's own length: the line's last character
        // goes, and an empty value copies nothing, not even a terminator.
        if (len == 0 || out_size == 0)
            return 0;
        size_t keep = len - 1;
        if (keep > out_size - 1) {
            log_msg(0, log_lvl::error, "[roam_lib] Value of %s in %s is longer than %zu characters; cut\n", key, path,
                    out_size - 1);
            keep = out_size - 1;
        }
        memcpy(out, value, keep);
        out[keep] = '\0';
        return 0;
    }
    return 0;
}

}  // namespace

int read_key_value(const char* path, const char* key, char delim, char* out, size_t out_size)
{
    file_ptr f = open_file(path, "r");
    if (!f) {
        int err = errno;
        log_msg(0, log_lvl::error, "[roam_lib] Failed to open %s file (%s | %d) \n", path, strerror(err), err);
        // What is left of the two-character text '""' under a 2-byte bound:
        // one double quote, which matches no product.
        if (out && out_size >= 2) {
            out[0] = '"';
            out[1] = '\0';
        } else if (out && out_size == 1) {
            out[0] = '\0';
        }
        return -1;
    }
    byte_source in(f.get());
    return scan_key_value(in, path, key, delim, out, out_size);
}

int parse_key_value(const char* data, size_t size, const char* path, const char* key, char delim, char* out,
                    size_t out_size)
{
    byte_source in(data, size);
    return scan_key_value(in, path, key, delim, out, out_size);
}

const product_info* match_product(const char* id)
{
    size_t len = strlen(id);
    for (const auto& row : product_table) {
        if (strncmp(id, row.name, len) == 0)
            return &row;
    }
    return nullptr;
}

int get_radio_type(char (&out)[12])
{
    read_key_value(paths::board_file, "ProductID", '=', out, sizeof out);
    const product_info* row = match_product(out);
    if (!row)
        return -1;
    log_msg(0, log_lvl::info, "[roam_lib] product Id matches {%s|%s}| radio_type_val = %d \n", out, row->name,
            row->radio_type_val);
    return row->radio_type_val;
}

int get_rogue_ap_detection(const char* wlan)
{
    char cmd[128];
    snprintf(cmd, sizeof cmd,
             "grep system:wlanSettings:wlanSettingTable:%s:rogueApDetection %s | awk '{print $2}' | head -1", wlan,
             paths::config_file);
    std::string output;
    if (shell_read(cmd, output, 256) != 0) {
        log_msg(0, log_lvl::error, "Getting Neighbor AP status failed\n");
        return -1;
    }
    return parse_rogue_ap_detection(output.data(), output.size());
}

int parse_rogue_ap_detection(const char* text, size_t len)
{
    const std::string output(text, len);
    char word[rogue_word_max + 1] = {};
    if (sscanf(output.c_str(), "%7s", word) != 1)
        return -1;
    return atoi(word);
}

char* get_date_string(char* out)
{
    char buf[32] = {};
    std::string output;
    if (shell_read("date", output, 256) == 0)
        sscanf(output.c_str(), "%24[^\n]", buf);
    memcpy(out, buf, sizeof buf);
    out[sizeof buf - 1] = '\0';
    return out;
}

char* get_epoch_string(char* out)
{
    std::string output;
    if (shell_read("date +%s", output, 256) != 0) {
        log_msg(0, log_lvl::error, "Error during getting epoch time\n");
        return out;
    }
    sscanf(output.c_str(), "%16[^\n]", out);
    return out;
}
