// Message layer of the configd client: exact bytes of built messages, the
// splitting of long data, the decoders, and reading one message off a socket.
// (The 27-byte request of a get is checked on the wire in dbcom_get_test.)
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "configstore/dbcom_msg.h"
#include "scripted_server.h"
#include "test_util.h"

namespace {

using cstest::socket_pair;

using bytes = std::vector<uint8_t>;

TEST(dbcom_build, request_items_absent_or_present)
{
    dbcom_handle h;
    dbcom_message msg;
    EXPECT_EQ(dbcom_build_request(&h, 4, 0x1000, 0, DBCOM_MAGIC, nullptr, 0, &msg), 0);
    EXPECT_EQ(bytes(msg.begin(), msg.end()), (bytes{1, 4, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0, 0, 0, 0, 0, 0, 0}));

    h.client_addr = "10.0.0.1";
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, nullptr, 0, &msg), 0);
    EXPECT_EQ(msg[5], 16);
    const bytes items = {0, 0, 0, 0, 3, 0, 0, 8, '1', '0', '.', '0', '.', '0', '.', '1'};
    EXPECT_EQ(bytes(msg.begin() + 12, msg.end()), items);

    // A length without a data pointer still counts: that many zero bytes.
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, nullptr, 3, &msg), 3);
    ASSERT_EQ(msg.size(), 12u + 16u + 3u);
    EXPECT_EQ(msg[5], 19);
    EXPECT_EQ(bytes(msg.end() - 3, msg.end()), (bytes{0, 0, 0}));
    const uint8_t one = 'k';
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, &one, 1, &msg), 1);
    EXPECT_EQ(msg.back(), 'k');
}

// The decoders check every length against the bytes present.
TEST(dbcom_parse, truncation_and_kinds)
{
    dbcom_request_view v;
    bytes no_data = {1, 1, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(dbcom_parse_request(no_data, &v), 0);
    EXPECT_TRUE(v.data.empty());
    bytes item_too_long = {1, 1, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 1, 0, 0, 9, 0, 0, 0, 0};
    EXPECT_EQ(dbcom_parse_request(item_too_long, &v), -1);
    EXPECT_EQ(dbcom_parse_request(cstest::reply(1, 0, "k v\n"), &v), -1);
    bytes short_body = {2, 1, 0, 0, 0, 9, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 'x'};
    EXPECT_EQ(dbcom_parse_header(short_body, nullptr, nullptr), -1);

    bool not_response = false;
    std::span<const uint8_t> body;
    EXPECT_EQ(dbcom_parse_response(no_data, nullptr, &body, &not_response), 8);
    EXPECT_TRUE(not_response);
}

// --- reading one message --------------------------------------------------

bool drained(int fd)
{
    uint8_t b;
    return recv(fd, &b, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

TEST(dbcom_read, stream_messages)
{
    bytes buf(DBCOM_MAX_MSG);
    socket_pair sp(SOCK_STREAM);
    // Arguments refused before the socket is touched.
    sp.put(cstest::reply(1, 0, ""));
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), 11), -1);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 0, buf.data(), buf.size()), -1);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 6, buf.data(), buf.size()), -1);
    // body_len 0 returns right after the header, leaving nothing behind.
    ASSERT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), buf.size()), 1);
    EXPECT_TRUE(drained(sp.ours.get()));

    bytes full = cstest::reply(5, 0x1000, "some body");
    sp.put(full);
    ASSERT_EQ(dbcom_read_message(sp.ours.get(), 3, buf.data(), buf.size()), 1);
    EXPECT_EQ(bytes(buf.begin(), buf.begin() + full.size()), full);

    // A buffer too small for the body: refused before the body is read.
    sp.put(cstest::reply(1, 0, "0123456789"));
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), 21), -1);
    EXPECT_FALSE(drained(sp.ours.get()));

    // A body cut short by the peer closing fails.
    socket_pair cut(SOCK_STREAM);
    bytes msg = cstest::reply(1, 0, "0123456789");
    msg.resize(msg.size() - 3);
    cut.put(msg);
    cut.theirs.reset();
    EXPECT_EQ(dbcom_read_message(cut.ours.get(), 1, buf.data(), buf.size()), -1);
}

// After a bad header the stream is out of step: everything queued is thrown
// away, however many reads that takes.
TEST(dbcom_read, bad_header_drains_the_stream)
{
    socket_pair sp(SOCK_STREAM);
    sp.put(cstest::wire(2, 6, 0, DBCOM_MAGIC, std::string(100, 'x')));
    bytes buf(16);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), buf.size()), -1);
    EXPECT_TRUE(drained(sp.ours.get()));
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
    EXPECT_EQ(dbcom_recv_timed(-1, buf, 8, 10), -1);
}

}  // namespace
