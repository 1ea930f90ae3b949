// Board lookups: product identifier and radio type, a radio's rogue-AP
// setting and the date texts. Nothing is cached: every call reads again.
#pragma once

#include <cstddef>
#include <cstdint>

struct product_info {
    char name[12];
    int32_t radios;
    int32_t radio_type_val;
};

inline constexpr size_t product_table_rows = 14;
extern const product_info product_table[product_table_rows];

// Reads `key` from the key/value file at path: the value follows the first
// `delim` of the first line containing the key, less one blank directly after
// the delimiter, less its last character (the newline). With `out` (room for
// out_size bytes) the value is copied there, cut to out_size-1 characters (an
// empty value, as at a last line ending in the delimiter, leaves out as it
// was), and 0 is returned whether or not the key was found; without it the
// value's atoi (0 when not found) is returned. -1 when the file cannot be
// opened (out then holds a single '"').
int read_key_value(const char* path, const char* key, char delim, char* out, size_t out_size);
// read_key_value over data[0..size), a key/value file's bytes; `path` only
// names the file in the log line of a cut value.
int parse_key_value(const char* data, size_t size, const char* path, const char* key, char delim, char* out,
                    size_t out_size);

// Fills out (12 bytes) with the board's product identifier from /etc/board and
// returns the radio type of the first product_table row that it is a prefix
// of, or -1 when none matches.
int get_radio_type(char (&out)[12]);

// The first product_table row whose name starts with id, or null.
const product_info* match_product(const char* id);

// Integer value of the radio's rogueApDetection setting in /tmp/run/config,
// or -1 when it cannot be read. wlan is "wlan0", "wlan1" or "wlan2".
int get_rogue_ap_detection(const char* wlan);
// The setting's value in the output of its look-up, text[0..len): the atoi of
// its first word (at most 7 characters), or -1 when it has none.
int parse_rogue_ap_detection(const char* text, size_t len);

// First line of `date` (at most 24 characters) into out (>= 32 bytes).
char* get_date_string(char* out);

// First line of `date +%s` (at most 16 characters) into out (>= 17 bytes);
// out is left as it was when the command cannot be started.
char* get_epoch_string(char* out);
