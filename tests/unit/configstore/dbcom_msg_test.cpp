// Message layer of the configd client: exact bytes of built messages, the
// splitting of long data, the decoders, and reading one message off a socket.
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <tuple>
#include <vector>

#include "configstore/dbcom_msg.h"
#include "scripted_server.h"
#include "test_util.h"

namespace {

using bytes = std::vector<uint8_t>;
using cstest::opt;
using cstest::reply;
using cstest::socket_pair;
using cstest::wire;

constexpr uint8_t A5 = 0xA5;

bytes head_of(const dbcom_message& m, size_t n)
{
    return bytes(m.begin(), m.begin() + static_cast<long>(std::min(n, m.size())));
}

TEST(dbcom_build, requests_and_responses)
{
    const std::string big(70000, 'x');
    const std::string u_full(65535 - 8, 'u');
    const struct {
        opt user, addr;
        bool response;
        uint16_t flags;
        const char* data;  // null: no pointer (that many zero bytes)
        size_t len;
        int rc;
        bytes head;  // the message's first bytes
        size_t size;
        // clang-format off
    } cases[] = {
        {{}, {}, false, 0x1000, nullptr, 0, 0, {1, 1, 0, 0, 0, 8, 0, 0, A5, A5, A5, A5, 0, 0, 0, 0, 0, 0, 0, 0}, 20},
        {"root", {}, false, 0, "a\n", 3, 3, {1, 1, 0, 0, 0, 15, 0, 0, A5, A5, A5, A5, 1, 0, 0, 4, 'r', 'o', 'o', 't',
                                             0, 0, 0, 0, 'a', '\n', 0}, 27},
        {{}, "10.0.0.1", false, 0, nullptr, 3, 3, {1, 1, 0, 0, 0, 19, 0, 0, A5, A5, A5, A5, 0, 0, 0, 0, 3, 0, 0, 8, '1',
                                                    '0', '.', '0', '.', '0', '.', '1', 0, 0, 0}, 31},
        // Data past what one message holds: exactly the room left, and 0x1000.
        {"ab", "c", false, 2, big.data(), big.size(), 65535 - 11, {1, 1, 0x10, 2, 0xFF, 0xFF, 0, 0, A5}, 65547},
        {u_full, {}, false, 0, nullptr, 0, 0, {1, 1, 0, 0, 0xFF, 0xFF, 0, 0, A5, A5, A5, A5, 1, 0, 0xFF, 0xF7}, 65547},
        // Items that leave no room for data that must go, or too long for a body.
        {u_full, {}, false, 0, "x", 1, -2, {}, 0},
        {u_full + "u", {}, false, 0, nullptr, 0, -2, {}, 0},
        {{}, {}, true, 0x1002, "x", 1, 1, {2, 1, 0, 2, 0, 1, 0, 0, A5, A5, A5, A5, 'x'}, 13},
        {{}, {}, true, 0, nullptr, 65535, 65535, {2, 1, 0, 0, 0xFF, 0xFF, 0, 0, A5, A5, A5, A5, 0}, 65547},
        {{}, {}, true, 0x0002, big.data(), 65536, 65535, {2, 1, 0x10, 2, 0xFF, 0xFF, 0, 0, A5, A5, A5, A5, 'x'}, 65547},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "user " << c.user.value_or("-").size() << " len " << c.len);
        dbcom_handle h;
        h.user = c.user;
        h.client_addr = c.addr;
        dbcom_message msg;
        const auto* data = reinterpret_cast<const uint8_t*>(c.data);
        int rc = c.response ? dbcom_build_response(1, c.flags, 0, DBCOM_MAGIC, data, c.len, &msg)
                            : dbcom_build_request(&h, 1, c.flags, 0, DBCOM_MAGIC, data, c.len, &msg);
        EXPECT_EQ(rc, c.rc);
        EXPECT_EQ(head_of(msg, c.head.size()), c.head);
        EXPECT_EQ(msg.size(), c.size);
    }
    // Without a handle both items are absent.
    dbcom_message msg;
    EXPECT_EQ(dbcom_build_request(nullptr, 4, 0, 0, DBCOM_MAGIC, nullptr, 0, &msg), 0);
    EXPECT_EQ(head_of(msg, 20), (bytes{1, 4, 0, 0, 0, 8, 0, 0, A5, A5, A5, A5, 0, 0, 0, 0, 0, 0, 0, 0}));
}

// The decoders check every length against the bytes present.
TEST(dbcom_parse, decoders_check_every_length)
{
    dbcom_request_view v;
    const bytes no_data = {1, 1, 0, 0, 0, 8, 0, 0, A5, A5, A5, A5, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(dbcom_parse_request(no_data, &v), 0);
    EXPECT_EQ(v.data.data(), nullptr);
    bool not_response = false;
    std::span<const uint8_t> body;
    EXPECT_EQ(dbcom_parse_response(no_data, nullptr, &body, &not_response), 8);
    EXPECT_TRUE(not_response);
    dbcom_header hdr;
    const bytes empty = {2, 3, 0x10, 1, 0, 0, 0, 7, 1, 2, 3, 4};
    EXPECT_EQ(dbcom_parse_response(empty, &hdr, &body, &not_response), 0);
    EXPECT_FALSE(not_response);
    EXPECT_EQ(body.data(), nullptr);
    EXPECT_EQ(std::make_tuple(int(hdr.kind), int(hdr.op), int(hdr.flags), int(hdr.reserved), hdr.magic),
              std::make_tuple(2, 3, 0x1001, 7, 0x01020304u));
    const bytes ext = {4,   1, 0, 0, 0, 22,  0,   0, A5, A5, A5, A5, 1, 0, 0, 2,   'u',
                       'v', 3, 0, 0, 2, 'i', 'p', 3, 0,  0,  0,  1,  2, 3, 4, 'k', '\n'};
    ASSERT_EQ(dbcom_parse_request(ext, &v), 0);
    EXPECT_EQ(std::string(v.user.value.begin(), v.user.value.end()) + std::to_string(v.user.type) +
                  std::string(v.addr.value.begin(), v.addr.value.end()) + std::to_string(v.addr.type),
              "uv1ip3");
    EXPECT_EQ(v.trailer_op, 3);
    const uint8_t word[4] = {1, 2, 3, 4};
    EXPECT_EQ(std::memcmp(&v.trailer_value, word, 4), 0);
    EXPECT_EQ(std::string(v.data.begin(), v.data.end()), "k\n");
    const bytes rejected[] = {
        {4, 1, 0, 0, 0, 12, 0, 0, A5, A5, A5, A5, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0},  // cut trailer
        {1, 1, 0, 0, 0, 2, 0, 0, A5, A5, A5, A5, 1, 0},                                 // cut item head
        {1, 1, 0, 0, 0, 0, 0, 0, A5, A5, A5},                                           // cut header
        {1, 1, 0, 0, 0, 8, 0, 0, A5, A5, A5, A5, 1, 0, 0, 9, 0, 0, 0, 0},               // item too long
        {1, 1, 0, 0, 0, 9, 0, 0, A5, A5, A5, A5, 0, 0, 0, 0, 0, 0, 0, 0},               // cut body
        reply(1, 0, "k v\n"),                                                           // not a request
    };
    for (const bytes& r : rejected) {
        SCOPED_TRACE(::testing::PrintToString(r));
        EXPECT_EQ(dbcom_parse_request(r, &v), -1);
        EXPECT_EQ(dbcom_parse_response(r, nullptr, nullptr, nullptr), r.size() < 12u + r[5] ? -1 : r[5]);
    }
}

bool drained(int fd)
{
    uint8_t b;
    return recv(fd, &b, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

// One message off a stream (magic and op checked; a bad header drains the
// socket) or a datagram (lengths only).
TEST(dbcom_read, one_message)
{
    bytes cut = reply(1, 0, "0123456789");
    cut.resize(cut.size() - 3);
    const struct {
        int transport;
        bytes in;
        size_t size;
        bool close;  // the peer closes after sending
        int rc;
        bool left;  // bytes still queued afterwards (streams)
    } cases[] = {
        {1, reply(1, 0, ""), 12, false, 1, false},
        {1, reply(1, 0, ""), 11, false, -1, true},
        {0, reply(1, 0, ""), 100, false, -1, true},
        {6, reply(1, 0, ""), 100, false, -1, true},
        {3, reply(5, 0x1000, "some body"), DBCOM_MAX_MSG, false, 1, false},
        {5, reply(1, 0, "0123456789"), 22, false, 1, false},
        {1, reply(1, 0, "0123456789"), 21, false, -1, true},
        {1, cut, DBCOM_MAX_MSG, true, -1, false},
        {1, wire(2, 6, 0, DBCOM_MAGIC, std::string(100, 'x')), 16, false, -1, false},
        {1, wire(2, 0, 0, DBCOM_MAGIC, "x"), 16, false, -1, false},
        {3, wire(2, 1, 0, 0xA5A5A5A4, "x"), 16, false, -1, false},
        {2, {2, 1, 0, 0, 0, 0, 0, 0, A5, A5, A5, A5}, 100, false, 1, false},
        {2, {2, 1, 0, 0, 0, 0, 0, 0, A5, A5, A5}, 100, false, -1, false},
        {4, {2, 1, 0, 0, 0, 2, 0, 0, A5, A5, A5, A5, 1}, 100, false, -1, false},
        {4, {2, 9, 0, 0, 0, 2, 0, 0, 0, 0, 0, 0, 1, 2}, 100, false, 1, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << "transport " << c.transport << ": " << ::testing::PrintToString(c.in));
        bool dgram = c.transport == 2 || c.transport == 4;
        socket_pair sp(dgram ? SOCK_DGRAM : SOCK_STREAM);
        sp.put(c.in);
        if (c.close)
            sp.theirs.reset();
        bytes buf(c.size);
        EXPECT_EQ(dbcom_read_message(sp.ours.get(), c.transport, buf.data(), buf.size()), c.rc);
        if (c.rc == 1) {
            EXPECT_EQ(bytes(buf.begin(), buf.begin() + static_cast<long>(c.in.size())), c.in);
        }
        if (!dgram && !c.close) {
            EXPECT_EQ(!drained(sp.ours.get()), c.left);
        }
    }
}

TEST(dbcom_read, timed_receive_ends_on_budget_or_close)
{
    socket_pair sp(SOCK_STREAM);
    uint8_t buf[8];
    sp.put(bytes{1, 2, 3});
    EXPECT_EQ(dbcom_recv_timed(sp.ours.get(), buf, 3, 1000), 3);
    EXPECT_EQ(dbcom_recv_timed(sp.ours.get(), buf, 8, 10), 0);
    sp.put(bytes{4});
    sp.theirs.reset();
    EXPECT_EQ(dbcom_recv_timed(sp.ours.get(), buf, 8, 1000), 0);
    EXPECT_EQ(buf[0], 4);
    for (int fd : {-1, FD_SETSIZE}) {
        errno = 0;
        EXPECT_EQ(dbcom_recv_timed(fd, buf, 8, 10), -1);
        EXPECT_EQ(errno, EBADF);
    }
}

}  // namespace
