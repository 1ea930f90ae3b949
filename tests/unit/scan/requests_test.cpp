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

// An expected image: zeros, little-endian words where given.
struct image {
    std::vector<uint8_t> b;
    explicit image(size_t n) : b(n, 0) {}
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

} // namespace
