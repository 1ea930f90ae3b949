// The bytes of the driver request blocks the scan module builds.
#include "scan/scan_internal.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <vector>

namespace
{

template <typename T> std::vector<uint8_t> bytes_of(const T& v)
{
    std::vector<uint8_t> out(sizeof v);
    memcpy(out.data(), &v, sizeof v);
    return out;
}

// An expected image: zeros, the name at 0, little-endian words where given.
struct image {
    std::vector<uint8_t> b;
    explicit image(size_t n) : b(n, 0) {}
    image& text(size_t at, const char* s)
    {
        memcpy(&b[at], s, strlen(s));
        return *this;
    }
    image& u32(size_t at, uint32_t v)
    {
        for (int i = 0; i < 4; ++i)
            b[at + i] = static_cast<uint8_t>(v >> (8 * i));
        return *this;
    }
    image& u8(size_t at, uint8_t v)
    {
        b[at] = v;
        return *this;
    }
};

void* pointer_at(const std::vector<uint8_t>& bytes, size_t at)
{
    void* p = nullptr;
    memcpy(&p, &bytes[at], sizeof p);
    return p;
}

TEST(scan_requests, acs_scan_start_block)
{
    drv_param_req req;
    memset(&req, 0xAA, sizeof req); // stale bytes must not survive
    fill_acs_scan_request(req, "wifi1vap3");
    EXPECT_EQ(bytes_of(req), image(32).text(0, "wifi1vap3").u32(16, 318).u32(20, 4).b);
}

// Unlike copy_ifname, the parameter request keeps a terminator: 15 characters at most.
TEST(scan_requests, cac_state_block)
{
    drv_param_req req;
    memset(&req, 0xAA, sizeof req);
    fill_cac_state_request(req, "wifi2vap0");
    EXPECT_EQ(bytes_of(req), image(32).text(0, "wifi2vap0").u32(16, 310).b);
    fill_cac_state_request(req, "abcdefghijklmnopqrst");
    EXPECT_EQ(bytes_of(req), image(32).text(0, "abcdefghijklmno").u32(16, 310).b);
}

TEST(scan_requests, single_channel_scan_block)
{
    struct row {
        int channel;
        uint8_t byte;
    };
    for (row r : {row{1, 1}, row{36, 36}, row{165, 165}, row{300, 44}}) {
        SCOPED_TRACE(r.channel);
        drv_chan_scan block;
        memset(&block, 0xAA, sizeof block);
        fill_chan_scan_block(block, r.channel);
        image want(56);
        want.u32(0, 110).u32(4, 60).u32(8, 100).u32(12, 50).u32(16, 1500).u8(20, 1).u8(21, 1).u8(22, r.byte);
        EXPECT_EQ(bytes_of(block), want.b);
    }
}

TEST(scan_requests, acs_report_request)
{
    drv_iwreq req;
    drv_debug_block block;
    acs_report report;
    memset(&req, 0xAA, sizeof req);
    memset(&block, 0xAA, sizeof block);
    memset(&report, 0xAA, sizeof report);
    fill_acs_report_request(req, block, report, "wifi0vap1");

    auto rq = bytes_of(req);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(rq.data())), "wifi0vap1");
    EXPECT_EQ(pointer_at(rq, 16), &block);
    // The driver's fixed lengths, also where the host pads the structures (1040 and 192 on 64-bit).
    EXPECT_EQ(req.u.data.length, 1036);
    EXPECT_EQ(req.u.data.flags, 0);

    auto bb = bytes_of(block);
    EXPECT_EQ(bb[0], 20);
    EXPECT_EQ(std::vector<uint8_t>(bb.begin() + 1, bb.begin() + 12), std::vector<uint8_t>(11, 0));
    uint32_t length = 0;
    memcpy(&length, &bb[12], 4);
    EXPECT_EQ(length, 188u);
    EXPECT_EQ(pointer_at(bb, 16), &report);
    size_t tail = 16 + sizeof(void*);
    EXPECT_EQ(std::vector<uint8_t>(bb.begin() + tail, bb.end()), std::vector<uint8_t>(bb.size() - tail, 0));

    // The report asks for entry 0 without a neighbour buffer.
    EXPECT_EQ(bytes_of(report), std::vector<uint8_t>(sizeof report, 0));
}

TEST(scan_requests, report_entry_and_neighbour_buffer)
{
    drv_iwreq req{};
    drv_debug_block block{};
    acs_report report{};
    fill_acs_report_request(req, block, report, "wifi0");
    block.cmd = 0; // the driver may leave anything here
    std::array<acs_neighbour, 32> buffer{};
    set_neighbour_buffer(report, buffer.data(), buffer.size());
    want_report_entry(block, report, 3);

    auto rb = bytes_of(report);
    EXPECT_EQ(rb[1], 3);
    uint32_t length = 0;
    memcpy(&length, &rb[28], 4);
    EXPECT_EQ(length, 1664u);
    EXPECT_EQ(pointer_at(rb, 32), buffer.data());
    EXPECT_EQ(block.cmd, 20);

    set_neighbour_buffer(report, nullptr, 0);
    EXPECT_EQ(report.nbr_length, 0u);
    EXPECT_EQ(report.nbr.pointer, nullptr);
}

TEST(scan_requests, interface_name_copy)
{
    struct row {
        const char* name;
        std::string field; // all 16 bytes
    };
    const row rows[] = {
        {"wifi0", std::string("wifi0") + std::string(11, '\0')},
        {"abcdefghijklmno", std::string("abcdefghijklmno") + '\0'},
        {"abcdefghijklmnop", "abcdefghijklmnop"},
        {"abcdefghijklmnopqrstu", "abcdefghijklmnop"},
    };
    for (const row& r : rows) {
        SCOPED_TRACE(r.name);
        char field[16];
        memset(field, 0xAA, sizeof field);
        copy_ifname(field, r.name);
        EXPECT_EQ(std::string(field, sizeof field), r.field);
    }
}

} // namespace
