// Message layer of the configd client: exact bytes of built messages, the
// splitting of long data, the decoders, and reading one message off a socket.
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>
#include <vector>

#include "configstore/dbcom_msg.h"
#include "scripted_server.h"
#include "test_util.h"

namespace {

using bytes = std::vector<uint8_t>;

bytes as_bytes(const std::string& s)
{
    return bytes(s.begin(), s.end());
}

class dbcom_msg_test : public sandbox_test {};

TEST_F(dbcom_msg_test, request_of_root_with_three_data_bytes_is_27_bytes)
{
    dbcom_handle* h = dbcom_init(nullptr, nullptr, DBCOM_UNIX_STREAM);
    ASSERT_NE(h, nullptr);
    ASSERT_EQ(h->user, std::optional<std::string>("root"));
    const uint8_t data[] = {'a', '\n', 0};
    bytes msg;
    EXPECT_EQ(dbcom_build_request(h, 1, 0, 0, DBCOM_MAGIC, data, sizeof data, &msg), 3);
    const bytes expected = {0x01, 0x01, 0x00, 0x00, 0x00, 0x0F, 0x00, 0x00, 0xA5, 0xA5, 0xA5, 0xA5, 0x01, 0x00,
                            0x00, 0x04, 'r',  'o',  'o',  't',  0x00, 0x00, 0x00, 0x00, 'a',  '\n', 0x00};
    EXPECT_EQ(msg, expected);
    dbcom_close(h);
}

TEST_F(dbcom_msg_test, request_items_absent_or_present)
{
    dbcom_handle h;
    bytes msg;
    EXPECT_EQ(dbcom_build_request(&h, 4, 0x1000, 0, DBCOM_MAGIC, nullptr, 0, &msg), 0);
    EXPECT_EQ(msg, (bytes{1, 4, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0, 0, 0, 0, 0, 0, 0}));

    h.client_addr = "10.0.0.1";
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, nullptr, 0, &msg), 0);
    bytes tail(msg.begin() + 12, msg.end());
    bytes expected = {0, 0, 0, 0, 3, 0, 0, 8};
    bytes addr = as_bytes("10.0.0.1");
    expected.insert(expected.end(), addr.begin(), addr.end());
    EXPECT_EQ(tail, expected);
    EXPECT_EQ(msg[5], 16);

    // A length without a data pointer still counts: that many zero bytes.
    EXPECT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, nullptr, 3, &msg), 3);
    ASSERT_EQ(msg.size(), 12u + 16u + 3u);
    EXPECT_EQ(msg[5], 19);
    EXPECT_EQ(bytes(msg.end() - 3, msg.end()), (bytes{0, 0, 0}));
}

struct split_case {
    size_t data_len;
    int taken;
    bool more;
};

void PrintTo(const split_case& c, std::ostream* os)
{
    *os << c.data_len << " data bytes";
}

class request_split_test : public ::testing::TestWithParam<split_case> {};

// Items of "root" and an absent address take 12 bytes, leaving 65523 for data.
constexpr size_t room_for_root = 65535 - 12;

TEST_P(request_split_test, takes_at_most_the_room_left_by_the_items)
{
    const split_case& c = GetParam();
    dbcom_handle h;
    h.user = "root";
    bytes data(c.data_len, 'x');
    bytes msg;
    ASSERT_EQ(dbcom_build_request(&h, 1, 0, 0, DBCOM_MAGIC, data.data(), data.size(), &msg), c.taken);
    EXPECT_EQ(msg.size(), 12 + 12 + static_cast<size_t>(c.taken));
    dbcom_header hdr;
    ASSERT_EQ(dbcom_parse_header(msg, &hdr, nullptr), 12 + c.taken);
    EXPECT_EQ((hdr.flags & DBCOM_FLAG_MORE) != 0, c.more);
}

INSTANTIATE_TEST_SUITE_P(lengths, request_split_test,
                         ::testing::Values(split_case{room_for_root - 1, room_for_root - 1, false},
                                           split_case{room_for_root, room_for_root, false},
                                           split_case{room_for_root + 1, room_for_root, true},
                                           split_case{200000, room_for_root, true}));

TEST(dbcom_response_build, splits_only_above_65535)
{
    const struct {
        size_t len;
        int taken;
        bool more;
    } cases[] = {{0, 0, false}, {65535, 65535, false}, {65536, 65535, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.len);
        bytes data(c.len, 'v');
        bytes msg;
        // A caller's stray 0x1000 is cleared when everything fits.
        ASSERT_EQ(dbcom_build_response(1, 0x1000 | 0x0002, 0, DBCOM_MAGIC, data.data(), c.len, &msg), c.taken);
        ASSERT_EQ(msg.size(), 12 + static_cast<size_t>(c.taken));
        EXPECT_EQ(msg[0], 2);
        EXPECT_EQ(msg[2], c.more ? 0x10 : 0x00);
        EXPECT_EQ(msg[3], 0x02);
        EXPECT_EQ((msg[4] << 8) | msg[5], c.taken);
    }
}

TEST(dbcom_parse, request_kinds_and_truncation)
{
    // Kind 4: user "ab", no address, trailer with op 3 and value 7, data "k".
    bytes ext = {4, 3, 0, 0, 0, 0x13, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 1, 0, 0, 2, 'a', 'b', 0, 0, 0, 0, 3, 0, 0, 0};
    uint32_t seven = 7;
    const auto* p = reinterpret_cast<const uint8_t*>(&seven);
    ext.insert(ext.end(), p, p + 4);
    ext.push_back('k');
    dbcom_request_view v;
    ASSERT_EQ(dbcom_parse_request(ext, &v), 0);
    EXPECT_EQ(v.user.type, 1);
    EXPECT_EQ(std::string(v.user.value.begin(), v.user.value.end()), "ab");
    EXPECT_EQ(v.addr.type, 0);
    EXPECT_EQ(v.trailer_op, 3);
    EXPECT_EQ(v.trailer_value, 7u);
    EXPECT_EQ(std::string(v.data.begin(), v.data.end()), "k");

    bytes no_data = {1, 1, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 0, 0, 0, 0, 0, 0, 0, 0};
    ASSERT_EQ(dbcom_parse_request(no_data, &v), 0);
    EXPECT_TRUE(v.data.empty());

    bytes item_too_long = {1, 1, 0, 0, 0, 8, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 1, 0, 0, 9, 0, 0, 0, 0};
    EXPECT_EQ(dbcom_parse_request(item_too_long, &v), -1);
    bytes response = cstest::reply(1, 0, "k v\n");
    EXPECT_EQ(dbcom_parse_request(response, &v), -1);
    bytes short_body = {2, 1, 0, 0, 0, 9, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 'x'};
    EXPECT_EQ(dbcom_parse_header(short_body, nullptr, nullptr), -1);

    bool not_response = false;
    std::span<const uint8_t> body;
    EXPECT_EQ(dbcom_parse_response(no_data, nullptr, &body, &not_response), 8);
    EXPECT_TRUE(not_response);
}

// --- reading one message --------------------------------------------------

struct socket_pair {
    unique_fd ours;
    unique_fd theirs;
    explicit socket_pair(int type)
    {
        int sv[2];
        if (socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, sv) == 0) {
            ours.reset(sv[0]);
            theirs.reset(sv[1]);
        }
    }
    void put(const bytes& b) const { ASSERT_EQ(send(theirs.get(), b.data(), b.size(), 0), ssize_t(b.size())); }
};

bool drained(int fd)
{
    uint8_t b;
    return recv(fd, &b, 1, MSG_DONTWAIT) < 0 && errno == EAGAIN;
}

TEST(dbcom_read, bad_stream_headers_are_refused_and_drained)
{
    const struct {
        const char* name;
        bytes msg;
    } cases[] = {
        {"magic", cstest::wire(2, 1, 0, 0xA5A5A5A4, "k v\n")},
        {"op 0", cstest::wire(2, 0, 0, DBCOM_MAGIC, "k v\n")},
        {"op 6", cstest::wire(2, 6, 0, DBCOM_MAGIC, "k v\n")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        socket_pair sp(SOCK_STREAM);
        sp.put(c.msg);
        sp.put(cstest::reply(1, 0, "queued behind it\n"));
        bytes buf(DBCOM_MAX_MSG);
        EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), buf.size()), -1);
        EXPECT_TRUE(drained(sp.ours.get()));
    }
}

TEST(dbcom_read, stream_messages)
{
    bytes buf(DBCOM_MAX_MSG);
    socket_pair sp(SOCK_STREAM);
    bytes full = cstest::reply(5, 0x1000, "some body");
    sp.put(full);
    sp.put(cstest::reply(1, 0, ""));
    ASSERT_EQ(dbcom_read_message(sp.ours.get(), 3, buf.data(), buf.size()), 1);
    EXPECT_EQ(bytes(buf.begin(), buf.begin() + full.size()), full);
    // body_len 0 returns right after the header, leaving nothing behind.
    ASSERT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), buf.size()), 1);
    EXPECT_TRUE(drained(sp.ours.get()));

    // A buffer too small for the body: refused before the body is read.
    sp.put(cstest::reply(1, 0, "0123456789"));
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), 21), -1);
    EXPECT_FALSE(drained(sp.ours.get()));
}

TEST(dbcom_read, short_body_then_close_fails)
{
    socket_pair sp(SOCK_STREAM);
    bytes msg = cstest::reply(1, 0, "0123456789");
    msg.resize(msg.size() - 3);
    sp.put(msg);
    sp.theirs.reset();
    bytes buf(DBCOM_MAX_MSG);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), buf.size()), -1);
}

TEST(dbcom_read, refuses_small_buffers_and_unknown_transports)
{
    socket_pair sp(SOCK_STREAM);
    sp.put(cstest::reply(1, 0, ""));
    bytes buf(DBCOM_MAX_MSG);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), 11), -1);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 0, buf.data(), buf.size()), -1);
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 6, buf.data(), buf.size()), -1);
    // None of them touched the socket.
    EXPECT_EQ(dbcom_read_message(sp.ours.get(), 1, buf.data(), buf.size()), 1);
}

TEST(dbcom_read, datagrams_check_lengths_only)
{
    const struct {
        const char* name;
        bytes msg;
        int rc;
    } cases[] = {
        {"header only", cstest::reply(1, 0, ""), 1},
        {"bad magic passes", cstest::wire(2, 9, 0, 1, "abc"), 1},
        {"short of its body", [] {
             bytes m = cstest::reply(1, 0, "0123456789");
             m.resize(20);
             return m;
         }(),
         -1},
        {"shorter than a header", bytes{2, 1, 0}, -1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        socket_pair sp(SOCK_DGRAM);
        sp.put(c.msg);
        bytes buf(DBCOM_MAX_MSG);
        EXPECT_EQ(dbcom_read_message(sp.ours.get(), 2, buf.data(), buf.size()), c.rc);
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
    EXPECT_EQ(dbcom_recv_timed(-1, buf, 8, 10), -1);
}

TEST(dbcom_text, append_keeps_old_text_up_to_its_first_nul)
{
    std::optional<std::string> s;
    const uint8_t body[] = {'a', 0, 'b'};
    str_append_bytes(&s, body, sizeof body);
    EXPECT_EQ(s, std::optional<std::string>(std::string("a\0b", 3)));
    str_append(&s, "cd");
    EXPECT_EQ(s, std::optional<std::string>("acd"));
    str_append(&s, nullptr);
    str_append(nullptr, "x");
    EXPECT_EQ(s, std::optional<std::string>("acd"));
}

}  // namespace
