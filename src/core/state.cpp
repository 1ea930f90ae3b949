// Definitions of the process-wide state (see state.h for ownership and locks).
#include "core/state.h"

uint8_t radio_count = 3;
int32_t radio_type_val = -1;
char product_id[12] = {};
dbcom_handle* config_handle = nullptr;
std::atomic<uint32_t> ft_enabled_vaps{0};

std::timed_mutex config_lock;
std::timed_mutex kh_lock;
