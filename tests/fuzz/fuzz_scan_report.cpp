// The driver's ACS report: process_scan_result reads it request by request
// (channel statistics, then each channel's neighbours, asking again with a
// larger buffer when told to) into the band's scan database (in scratch)
// and hands the neighbours to the key-holder logic.
//
// Input: byte 0 the radio (bits 0-1) and whether one channel is wanted
// (bit 2; byte 1 is then the channel), byte 2 how many known APs follow (bits
// 0-1), each as 6 MAC bytes and a family byte; the rest answers the driver's
// requests in order: per request a control byte (0xFF: the request fails;
// bit 0: answer 7, "buffer too small"), the entry count, then the entry
// asked for (no entry past the count): the channel, its neighbour count, 20
// bytes of statistics, and the number of neighbours given (0..6, never more
// than the buffer holds), 52 bytes each; the neighbours not given are
// empty, as is the buffer the daemon hands over.
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "base/paths.h"
#include "board/board.h"
#include "fuzz_support.h"
#include "model/acs_report.h"
#include "neighbours/nb_internal.h"
#include "neighbours/neighbours.h"
#include "scan/scan.h"
#include "scan/scan_internal.h"

namespace {

// Each neighbour stored is a write cycle on the database: a few requests of
// a few neighbours reach every path, more only slow the target down.
constexpr int max_requests = 24;
constexpr uint8_t max_entries = 8;
constexpr size_t max_written = 6;

struct answer_source {
    const uint8_t* data = nullptr;
    size_t size = 0;
    size_t pos = 0;
    int requests = 0;

    uint8_t byte() { return pos < size ? data[pos++] : 0; }
    void bytes(void* out, size_t n)
    {
        auto* p = static_cast<uint8_t*>(out);
        for (size_t i = 0; i < n; ++i)
            p[i] = byte();
    }
} answers;

// The channel entry of one answer; the report holds it at the index asked
// for, if that is below the entry count.
dorvsim::acs_channel channel_of(const acs_report& r)
{
    dorvsim::acs_channel c;
    c.ieee_chan = answers.byte();
    c.neighbours.resize(answers.byte());
    answers.bytes(&c.max_rssi, sizeof c.max_rssi);
    answers.bytes(&c.min_rssi, sizeof c.min_rssi);
    answers.bytes(&c.noise_floor, sizeof c.noise_floor);
    answers.bytes(&c.spectral_load, sizeof c.spectral_load);
    answers.bytes(&c.chan_load, sizeof c.chan_load);
    answers.bytes(&c.chan_rank, sizeof c.chan_rank);
    size_t room = r.nbr.pointer ? r.nbr_length / sizeof(acs_neighbour) : 0;
    size_t written = answers.byte() % (max_written + 1);
    for (size_t i = 0; i < written && i < room; ++i) {
        acs_neighbour n;
        answers.bytes(&n, sizeof n);
        if (i < c.neighbours.size())
            c.neighbours[i] = n;
    }
    return c;
}

int fuzz_driver(int, unsigned long request, void* arg)
{
    if (request != DRV_REQ_DEBUG || ++answers.requests > max_requests || answers.pos >= answers.size) {
        errno = EIO;
        return -1;
    }
    auto* block = static_cast<drv_debug_block*>(static_cast<drv_iwreq*>(arg)->u.data.pointer);
    acs_report& r = *block->report;
    uint8_t control = answers.byte();
    if (control == 0xFF) {
        errno = EIO;
        return -1;
    }
    std::vector<dorvsim::acs_channel> report(answers.byte() % max_entries);
    dorvsim::acs_channel entry = channel_of(r);
    if (r.wanted < report.size())
        report[r.wanted] = std::move(entry);
    dorvsim::acs_answer_request(report, r, false);
    return (control & 1) ? 7 : 0;
}

int scalar(sqlite3* db, const char* sql)
{
    sqlite3_stmt* stmt = nullptr;
    int value = -1;
    if (sqlite3_prepare_v2(db, sql, -1, &stmt, nullptr) == SQLITE_OK && sqlite3_step(stmt) == SQLITE_ROW)
        value = sqlite3_column_int(stmt, 0);
    sqlite3_finalize(stmt);
    return value;
}

// What any report leaves in the database: loads within 0..100 and SSIDs of
// at most 32 characters.
void check_database(int radio)
{
    sqlite3* db = nullptr;
    fuzz::check(sqlite3_open_v2(paths::scan_dbs[radio], &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK,
                "scan database not readable");
    fuzz::check(scalar(db, "SELECT COUNT(*) FROM CHANNEL_DETAILS WHERE CH_LOAD > 100") == 0,
                "channel load above 100 stored");
    fuzz::check(scalar(db, "SELECT COUNT(*) FROM SCANNED_AP_DETAILS WHERE LENGTH(SSID) > 32") == 0,
                "SSID longer than 32 characters stored");
    sqlite3_close(db);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz::enter_scratch();
    driver_ioctl = fuzz_driver;
    board().radio_count = 3;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3)
        return 0;
    const int radio = (data[0] & 3) % 3;
    const int channel = (data[0] & 4) ? data[1] : 0;
    fuzz::fresh_tables(3);
    size_t pos = 3;
    for (int k = 0; k < (data[2] & 3) && size - pos >= 7; ++k, pos += 7)
        add_to_ht(neighbours().known_ap_tables[radio], data + pos, 1, data[pos + 6] & 1, 0, 0);
    answers = answer_source{data + pos, size - pos, 0, 0};

    unlink(paths::scan_dbs[radio]);
    static int (*const create[3])() = {create_scan_db_2g, create_scan_db_5g, create_scan_db_5gh};
    fuzz::check(create[radio]() == 0, "scan database not created");
    static constexpr const char* vaps[3] = {"wifi0vap0", "wifi1vap0", "wifi2vap0"};
    process_scan_result(radio, vaps[radio], channel);
    check_database(radio);
    fuzz::reset_neighbours();
    return 0;
}
