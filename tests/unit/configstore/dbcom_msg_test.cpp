// Message layer of the configd client: exact bytes of built messages, the
// splitting of long data, the decoders, and reading one message off a socket.
// (The 27-byte request of a get is checked on the wire in dbcom_get_test.)
#include <sys/socket.h>
#include <syslog.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
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

// --- edges ------------------------------------------------------------------

TEST(dbcom_msg_edges, builders_refuse_what_cannot_be_a_message)
{
    dbcom_message msg;
    // A response splits at 65535 bytes of data, as a request does.
    EXPECT_EQ(dbcom_build_response(1, 0x1000, 0, DBCOM_MAGIC, nullptr, DBCOM_MAX_BODY, &msg), 65535);
    EXPECT_EQ(bytes(msg.begin(), msg.begin() + 12), (bytes{2, 1, 0, 0, 0xFF, 0xFF, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5}));
    const bytes big(DBCOM_MAX_BODY + 1, 'x');
    EXPECT_EQ(dbcom_build_response(1, 0x0002, 0, DBCOM_MAGIC, big.data(), big.size(), &msg), 65535);
    EXPECT_EQ(bytes(msg.begin(), msg.begin() + 4), (bytes{2, 1, 0x10, 0x02}));
    EXPECT_EQ(msg.back(), 'x');
    const uint8_t data[] = {'x'};
    // Without a handle both items are absent.
    EXPECT_EQ(dbcom_build_request(nullptr, 1, 0, 0, DBCOM_MAGIC, data, 1, &msg), 1);
    EXPECT_EQ(bytes(msg.begin(), msg.end()),
              (bytes{1, 1, 0, 0, 0, 9, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0, 0, 0, 0, 0, 0, 0, 'x'}));
    // Items too long for a body, or leaving no room for data that must go.
    dbcom_handle h;
    h.user = std::string(DBCOM_MAX_BODY - 7, 'u');
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, nullptr, 0, &msg), -2);
    EXPECT_TRUE(msg.empty());
    h.user = std::string(DBCOM_MAX_BODY - 8, 'u');
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, data, 1, &msg), -2);
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, nullptr, 0, &msg), 0);
    EXPECT_EQ(msg.size(), DBCOM_MAX_MSG);
}

// The decoders check every length against the bytes present.
TEST(dbcom_msg_edges, decoders_check_every_length)
{
    dbcom_request_view v;
    const bytes no_data = {1, 1, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(dbcom_parse_request(no_data, &v), 0);
    EXPECT_TRUE(v.data.empty());
    bool not_response = false;
    std::span<const uint8_t> body;
    EXPECT_EQ(dbcom_parse_response(no_data, nullptr, &body, &not_response), 8);
    EXPECT_TRUE(not_response);
    const bytes short_body = {2, 1, 0, 0, 0, 9, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 'x'};
    EXPECT_EQ(dbcom_parse_header(short_body, nullptr, nullptr), -1);
    const bytes ext = {4, 1, 0, 0, 0, 18, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0,   0,
                       0, 0, 0, 0, 0, 3,  0, 0, 0,    1,    2,    3,    4, 'k', '\n'};
    ASSERT_EQ(dbcom_parse_request(ext, &v), 0);
    EXPECT_EQ(v.trailer_op, 3);
    const uint8_t word[4] = {1, 2, 3, 4};
    EXPECT_EQ(std::memcmp(&v.trailer_value, word, 4), 0);
    EXPECT_EQ(std::string(v.data.begin(), v.data.end()), "k\n");
    const bytes rejected[] = {
        {4, 1, 0, 0, 0, 12, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0}, // cut trailer
        {1, 1, 0, 0, 0, 2, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 1, 0},                                // cut item head
        {1, 1, 0, 0, 0, 0, 0, 0, 0xA5, 0xA5, 0xA5},                                            // cut header
        {1, 1, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 1, 0, 0, 9, 0, 0, 0, 0},              // item too long
        cstest::reply(1, 0, "k v\n"),                                                           // not a request
    };
    for (const bytes& r : rejected) {
        SCOPED_TRACE(::testing::PrintToString(r));
        EXPECT_EQ(dbcom_parse_request(r, &v), -1);
        EXPECT_EQ(dbcom_parse_response(r, nullptr, nullptr, nullptr), r.size() < 12 ? -1 : r[5]);
    }
}

// Datagrams are checked for length only: one shorter than its header or its
// announced body is refused.
TEST(dbcom_msg_edges, datagrams_shorter_than_announced)
{
    socket_pair sp(SOCK_DGRAM);
    bytes buf(DBCOM_MAX_MSG);
    const struct {
        bytes dgram;
        int rc;
    } rows[] = {
        {{2, 1, 0, 0, 0, 0, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5}, 1},
        {{2, 1, 0, 0, 0}, -1},  // behind a whole header that announced no body
        {{2, 1, 0, 0, 0, 10, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 1, 2, 3, 4, 5, 6, 7, 8}, -1},
    };
    for (const auto& r : rows) {
        sp.put(r.dgram);
        EXPECT_EQ(dbcom_read_message(sp.ours.get(), DBCOM_UNIX_DGRAM, buf.data(), buf.size()), r.rc);
    }
}

// After a bad header the stream is out of step: everything queued is thrown
// away, however many reads that takes, up to the peer's close.
TEST(dbcom_msg_edges, bad_header_flushes_the_stream)
{
    socket_pair sp(SOCK_STREAM);
    sp.put(cstest::wire(2, 6, 0, DBCOM_MAGIC, std::string(100, 'x')));
    bytes small(16);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, small.data(), small.size()), -1);
    EXPECT_TRUE(drained(sp.ours.get()));

    sp.put(cstest::wire(2, 9, 0, DBCOM_MAGIC, "junk"));
    sp.theirs.reset();
    bytes buf(DBCOM_MAX_MSG);
    openlog(nullptr, LOG_PERROR, LOG_USER);
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 5, buf.data(), buf.size()), -1);
    std::string logged = ::testing::internal::GetCapturedStderr();
    openlog(nullptr, 0, LOG_USER);
    closelog();
    EXPECT_NE(logged.find("dbcom_read_message:1201: flushing socket: bytes_read = 4 msg = junk\n"), std::string::npos)
        << logged;
    EXPECT_NE(logged.find("dbcom_read_message:1201: flushing socket: bytes_read = 0 msg = \n"), std::string::npos)
        << logged;
}

}  // namespace
