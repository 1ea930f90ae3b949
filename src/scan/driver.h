// Wire layouts of the wireless driver's requests used by the scans, shared by
// the daemon and by the simulated driver that answers them in tests.
//
// The driver's target is a 32-bit little-endian system. The structures keep
// the target's field order with native pointers: on a 32-bit build every
// offset below is the driver's (checked at the end of this file); on a 64-bit
// build the fields behind a pointer move, which both ends see alike. Every
// length that goes to the driver is the fixed number below, never the size
// of a host structure: a 64-bit build pads a structure holding a pointer
// beyond the driver's length, and would send a length no driver expects.
#pragma once

#include <net/if.h>

#include <cstddef>
#include <cstdint>

// ---- Request numbers and ids ----------------------------------------------

inline constexpr unsigned long DRV_SIOCGIFFLAGS = 0x8913;   // interface flags (system)
inline constexpr unsigned long DRV_REQ_PARAM_SET = 0x8BE0;  // private parameter set
inline constexpr unsigned long DRV_REQ_PARAM_GET = 0x8BE1;  // private parameter get
inline constexpr unsigned long DRV_REQ_CHAN_INFO = 0x8BE7;  // channel list of a radio
inline constexpr unsigned long DRV_REQ_DEBUG = 0x8BF8;      // debug request (ACS report)
inline constexpr unsigned long DRV_REQ_EXT_CMD = 0x89F8;    // device-private extended command

inline constexpr int32_t PARAM_CAC_STATE = 310;
inline constexpr int32_t PARAM_ACS_SCAN = 318;
inline constexpr int32_t ACS_SCAN_START_VALUE = 4;  // sent with PARAM_ACS_SCAN

inline constexpr uint32_t EXT_CMD_CHAN_SCAN = 6;
inline constexpr uint32_t EXT_CMD_VOICE_STATS = 23;

inline constexpr uint8_t DBG_CMD_ACS_REPORT = 20;

inline constexpr uint16_t DRV_IFF_UP = 0x1;

// ---- Interface requests ----------------------------------------------------

// The system's interface request (SIOCGIFFLAGS, and the carrier of the
// extended command). Its body is as large as the system's own, because the
// kernel copies the whole system structure in and out.
struct drv_ifreq {
    char name[16];
    union {
        int16_t flags;
        void* data;  // extended command: the drv_ext_cmd block
        uint8_t raw[sizeof(struct ifreq) - IFNAMSIZ];
    } u;
};

// The wireless request carrying a buffer (channel information, debug).
struct drv_iwreq {
    char name[16];
    union {
        struct {
            void* pointer;
            uint16_t length;
            uint16_t flags;
        } data;
        uint8_t raw[16];
    } u;
};

// Private parameter set/get block. On a get the driver writes the
// parameter's value over `param`.
struct drv_param_req {
    char name[16];
    int32_t param;
    int32_t value;  // set: the value sent with the parameter
    uint8_t reserved[8];
};

// ---- Extended commands -----------------------------------------------------

struct drv_ext_cmd {
    uint32_t cmd;
    void* data;
    uint32_t length;
};

// Voice statistics (EXT_CMD_VOICE_STATS), filled by the driver.
struct drv_voice_stats {
    uint8_t reserved0[16];
    uint64_t prev_voice_pkts;
    uint64_t cur_voice_pkts;
    uint8_t reserved32;
    uint8_t voice_bit;  // nonzero while voice traffic is active
    uint8_t reserved34[6];
};

// Single-channel scan (EXT_CMD_CHAN_SCAN). The constant words and flags are
// the driver's scan parameters; they are sent as they are.
struct drv_chan_scan {
    uint32_t word[5];  // 110, 60, 100, 50, 1500
    uint8_t flag[2];   // 1, 1
    uint8_t channel;   // low 8 bits of the channel number
    uint8_t reserved[33];
};
inline constexpr uint32_t CHAN_SCAN_WORDS[5] = {110, 60, 100, 50, 1500};

// ---- Channel information ---------------------------------------------------

struct drv_chan_record {
    uint8_t reserved0[10];
    uint8_t ieee_chan;
    uint8_t reserved11[9];
};

inline constexpr size_t DRV_CHAN_RECORDS_MAX = 1023;

// Reply buffer of DRV_REQ_CHAN_INFO: a count byte, then the records.
struct drv_chan_info {
    uint8_t count;
    uint8_t reserved[3];
    drv_chan_record record[DRV_CHAN_RECORDS_MAX];
};

// ---- ACS report (debug request) --------------------------------------------

// One neighbouring BSS of a channel, as the driver packs them.
struct acs_neighbour {
    int32_t phymode;
    int32_t rssi;
    uint8_t bssid[6];
    uint8_t reserved14;
    char ssid[33];  // NUL-terminated by the driver, at most 32 characters
    uint8_t vx_ap_type;
    uint8_t reserved49[3];
};

inline constexpr size_t ACS_NEIGHBOURS_FIRST = 32;  // entries of the first buffer

// One channel of the ACS report. The daemon writes `wanted` and the
// neighbour buffer; the driver fills the rest.
struct acs_report {
    uint8_t count;   // channel entries in the report
    uint8_t wanted;  // index of the entry asked for
    uint8_t reserved2[2];
    uint8_t ieee_chan;
    uint8_t chan_nbss;
    uint8_t reserved6[2];
    int32_t max_rssi;
    int32_t min_rssi;
    int16_t noise_floor;
    int16_t spectral_load;
    uint32_t chan_load;
    uint8_t reserved24[4];
    uint32_t nbr_length;  // bytes of the neighbour buffer
    // Eight bytes on every build, so that chan_rank keeps its offset.
    union {
        acs_neighbour* pointer;
        uint8_t raw[8];
    } nbr;
    int32_t chan_rank;
    uint8_t reserved44[144];
};

// The debug block of DRV_REQ_DEBUG.
struct drv_debug_block {
    uint8_t cmd;
    uint8_t reserved1[7];
    uint32_t zero;
    uint32_t report_length;
    acs_report* report;
    uint8_t reserved[1016];
};

// ---- Lengths sent to the driver ----------------------------------------------

inline constexpr uint16_t DRV_CHAN_INFO_LEN = 20464;   // reply buffer of DRV_REQ_CHAN_INFO
inline constexpr uint32_t DRV_VOICE_STATS_LEN = 40;    // EXT_CMD_VOICE_STATS block
inline constexpr uint32_t DRV_CHAN_SCAN_LEN = 56;      // EXT_CMD_CHAN_SCAN block
inline constexpr uint16_t DRV_DEBUG_BLOCK_LEN = 1036;  // debug block of DRV_REQ_DEBUG
inline constexpr uint32_t ACS_REPORT_LEN = 188;        // report buffer of the debug block
inline constexpr uint32_t ACS_NEIGHBOUR_LEN = 52;      // one entry of the neighbour buffer

// ---- Layout checks ---------------------------------------------------------

// The driver fills as many bytes as the length says: each structure holds
// them on every build, and is exactly that long where pointers are 4 bytes.
static_assert(sizeof(drv_chan_info) == DRV_CHAN_INFO_LEN && sizeof(drv_voice_stats) == DRV_VOICE_STATS_LEN &&
              sizeof(drv_chan_scan) == DRV_CHAN_SCAN_LEN && sizeof(acs_neighbour) == ACS_NEIGHBOUR_LEN);
static_assert(sizeof(drv_debug_block) >= DRV_DEBUG_BLOCK_LEN && sizeof(acs_report) >= ACS_REPORT_LEN);

static_assert(sizeof(drv_param_req) == 32 && offsetof(drv_param_req, param) == 16 &&
              offsetof(drv_param_req, value) == 20);
static_assert(sizeof(drv_voice_stats) == 40 && offsetof(drv_voice_stats, prev_voice_pkts) == 16 &&
              offsetof(drv_voice_stats, cur_voice_pkts) == 24 && offsetof(drv_voice_stats, voice_bit) == 33);
static_assert(sizeof(drv_chan_scan) == 56 && offsetof(drv_chan_scan, word) == 0 &&
              offsetof(drv_chan_scan, flag) == 20 && offsetof(drv_chan_scan, channel) == 22);
static_assert(sizeof(drv_chan_record) == 20 && offsetof(drv_chan_record, ieee_chan) == 10);
static_assert(sizeof(drv_chan_info) == 20464 && offsetof(drv_chan_info, record) == 4);
static_assert(sizeof(acs_neighbour) == 52 && offsetof(acs_neighbour, phymode) == 0 &&
              offsetof(acs_neighbour, rssi) == 4 && offsetof(acs_neighbour, bssid) == 8 &&
              offsetof(acs_neighbour, ssid) == 15 && offsetof(acs_neighbour, vx_ap_type) == 48);
static_assert(ACS_NEIGHBOURS_FIRST * sizeof(acs_neighbour) == 1664);
static_assert(offsetof(acs_report, count) == 0 && offsetof(acs_report, wanted) == 1 &&
              offsetof(acs_report, ieee_chan) == 4 && offsetof(acs_report, chan_nbss) == 5 &&
              offsetof(acs_report, max_rssi) == 8 && offsetof(acs_report, min_rssi) == 12 &&
              offsetof(acs_report, noise_floor) == 16 && offsetof(acs_report, spectral_load) == 18 &&
              offsetof(acs_report, chan_load) == 20 && offsetof(acs_report, nbr_length) == 28 &&
              offsetof(acs_report, nbr) == 32 && offsetof(acs_report, chan_rank) == 40);
static_assert(offsetof(drv_debug_block, cmd) == 0 && offsetof(drv_debug_block, zero) == 8 &&
              offsetof(drv_debug_block, report_length) == 12 && offsetof(drv_debug_block, report) == 16);
static_assert(sizeof(drv_ifreq) == sizeof(struct ifreq) && offsetof(drv_ifreq, u) == 16);

#if UINTPTR_MAX == 0xFFFFFFFF
// The driver's own word size: every size and offset of the driver's layouts holds.
static_assert(sizeof(drv_ifreq) == 32 && offsetof(drv_ifreq, u.flags) == 16 && offsetof(drv_ifreq, u.data) == 16);
static_assert(sizeof(drv_iwreq) == 32 && offsetof(drv_iwreq, u.data.pointer) == 16 &&
              offsetof(drv_iwreq, u.data.length) == 20 && offsetof(drv_iwreq, u.data.flags) == 22);
static_assert(sizeof(drv_ext_cmd) == 12 && offsetof(drv_ext_cmd, cmd) == 0 && offsetof(drv_ext_cmd, data) == 4 &&
              offsetof(drv_ext_cmd, length) == 8);
static_assert(sizeof(drv_debug_block) == DRV_DEBUG_BLOCK_LEN && sizeof(acs_report) == ACS_REPORT_LEN);
#endif
