// The board this daemon runs on, learned once at start-up.
#pragma once

#include <cstdint>

struct board_info {
    uint8_t radio_count = 3;      // 2 or 3
    int32_t radio_type_val = -1;  // 0, 1, 2, or -1 for an unknown product
    char product_id[12] = {};     // at most 11 characters
};

// The process's board record. Written by board_load at start-up before any
// other thread exists; only read afterwards.
board_info& board();

// Reads the product identifier from /etc/board and sets the radio type and
// the radio count (3 for any non-zero radio type, 2 otherwise).
void board_load();
