// The configd client's face against a scripted server: what goes out for a
// get, what the answers make of it over its three attempts, the handle's
// transports, and the text lines that carry keys and values.
#include <arpa/inet.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "configstore/dbcom.h"
#include "configstore/dbcom_msg.h"
#include "scripted_server.h"
#include "test_util.h"

namespace {

using bytes = std::vector<uint8_t>;
using cstest::get_path;
using cstest::opt;
using cstest::reply;
using cstest::reply_plan;
using cstest::scripted_server;
using cstest::seen_request;
using testutil::at;

std::string times3(const std::string& s)
{
    return s + s + s;
}

using dbcom_client_test = cstest::client_test;

TEST_F(dbcom_client_test, get_sends_user_item_key_line_feed_and_nul)
{
    if (getuid() != 0)
        GTEST_SKIP() << "the request names the user running the tests: its bytes below are root's";
    scripted_server srv(get_path().c_str(),
                        [](const seen_request&, int) { return reply_plan{{reply(1, 0, "a\\ b 1\n")}}; });
    opt value;
    opt error = "stale";
    ASSERT_EQ(dbcom_get(handle_, "a b", &value, &error), 0);
    EXPECT_EQ(value, opt("1"));
    EXPECT_EQ(error, std::nullopt);
    auto reqs = srv.requests();
    ASSERT_EQ(reqs.size(), 1u);
    ASSERT_EQ(reqs[0].messages.size(), 1u);
    const bytes expected = {0x01, 0x01, 0x00, 0x00, 0x00, 0x12, 0x00, 0x00, 0xA5, 0xA5, 0xA5, 0xA5, 0x01, 0x00, 0x00,
                            0x04, 'r',  'o',  'o',  't',  0x00, 0x00, 0x00, 0x00, 'a',  '\\', ' ',  'b',  '\n', 0x00};
    EXPECT_EQ(reqs[0].messages[0], expected);
    // A read never needs the set channel.
    EXPECT_EQ(handle_->set.open, 0);
    EXPECT_EQ(handle_->get.open, 1);
}

struct answer_case {
    const char* name;
    std::vector<bytes> replies;  // sent for every request after the first `silent` ones
    int rc;
    opt value, error;
    size_t requests;
    int conns;  // connections used: a failed attempt closes the channel
    int silent = 0;
};

void PrintTo(const answer_case& c, std::ostream* os)
{
    *os << c.name;
}

class get_answer_test : public dbcom_client_test, public ::testing::WithParamInterface<answer_case> {};

TEST_P(get_answer_test, value_error_and_attempts)
{
    const answer_case& c = GetParam();
    scripted_server srv(get_path().c_str(), [&c](const seen_request&, int n) {
        return n < c.silent ? reply_plan{} : reply_plan{c.replies, false};
    });
    opt value = "stale";
    opt error = "stale";
    EXPECT_EQ(dbcom_get(handle_, "key", &value, &error), c.rc);
    EXPECT_EQ(value, c.value);
    EXPECT_EQ(error, c.error);
    srv.wait_for(c.requests);
    auto reqs = srv.requests();
    ASSERT_FALSE(reqs.empty());
    EXPECT_EQ(reqs.size(), c.requests);
    EXPECT_EQ(reqs.back().conn, c.conns);
}

INSTANTIATE_TEST_SUITE_P(
    answers, get_answer_test,
    ::testing::Values(
        answer_case{"plain", {reply(1, 0, "key 1\n")}, 0, "1", {}, 1, 1},
        answer_case{"no_result_text", {reply(1, 0, "")}, 0, {}, {}, 3, 1},
        answer_case{"key_line_without_value", {reply(1, 0, "key\n")}, 0, {}, {}, 1, 1},
        answer_case{"other_op_first", {reply(2, 0, "key wrong\n"), reply(1, 0, "key right\n")}, 0, "right", {}, 1, 1},
        answer_case{"three_parts",
                    {reply(1, 0x1000, "key v"), reply(1, 0x1000, "al"), reply(1, 0, "ue\n")},
                    0,
                    "value",
                    {},
                    1,
                    1},
        answer_case{"diagnostic_only", {reply(1, 0x0002, "no such key\n")}, 0, {}, times3("no such key\n"), 3, 1},
        // The caller's error text is C text: what follows a NUL goes.
        answer_case{"diagnostic_with_nul", {reply(1, 0x0004, std::string("ab\0cd", 5))}, 0, {}, "ababab", 3, 1},
        answer_case{"diagnostic_then_value", {reply(1, 0x1002, "see\n"), reply(1, 0, "key 5\n")}, 0, "5", {}, 1, 1},
        answer_case{"failure", {reply(1, 0x0001, "denied\n")}, 1, {}, times3("denied\n"), 3, 3},
        // 0x0001 fails the attempt even when a value follows it; without a
        // text it is no diagnostic and fails nothing.
        answer_case{
            "failure_then_value", {reply(1, 0x1003, "diag\n"), reply(1, 0, "key 7\n")}, 1, {}, times3("diag\n"), 3, 3},
        answer_case{"empty_failure", {reply(1, 0x1001, ""), reply(1, 0, "key 8\n")}, 0, "8", {}, 1, 1},
        answer_case{"answer_after_one_timeout", {reply(1, 0, "key on\n")}, 0, "on", {}, 2, 2, 1}),
    [](const auto& p) { return std::string(p.param.name); });

std::string un_path(const std::optional<dbcom_addr>& a)
{
    return a ? reinterpret_cast<const sockaddr_un*>(&a->storage)->sun_path : "<none>";
}

std::string in_addr(const std::optional<dbcom_addr>& a)
{
    if (!a)
        return "<none>";
    const auto* in = reinterpret_cast<const sockaddr_in*>(&a->storage);
    char text[32];
    snprintf(text, sizeof text, "%08x:%d", ntohl(in->sin_addr.s_addr), ntohs(in->sin_port));
    return text;
}

TEST(dbcom_init_test, transports)
{
    dbcom_handle* h = dbcom_init(nullptr, nullptr, 1);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(un_path(h->get.server_addr), at("/tmp/confd_get"));
    EXPECT_EQ(un_path(h->set.server_addr), at("/tmp/confd_set"));
    // The family's two bytes, the path and its NUL.
    EXPECT_EQ(h->get.server_addr->len, 2 + at("/tmp/confd_get").size() + 1);
    dbcom_close(h);
    const std::string longest(100, 'p');
    h = dbcom_init(longest.c_str(), longest.c_str(), 2);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(un_path(h->set.server_addr), longest);
    EXPECT_EQ(un_path(h->get.local_un_addr), at("/tmp/dlg_") + std::to_string(getpid()));
    EXPECT_EQ(un_path(h->set.local_un_addr), at("/tmp/dls_") + std::to_string(getpid()));
    dbcom_close(h);

    // Host names or dotted numbers (the first four of them when more
    // follow), service names or port numbers.
    h = dbcom_init("127.0.0.1:8080", "1.2.3.4.5:tcpmux", 3);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(in_addr(h->get.server_addr), "7f000001:8080");
    EXPECT_EQ(in_addr(h->set.server_addr), "01020304:1");
    dbcom_close(h);
    h = dbcom_init("localhost", "10.1.2:9", 4);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(in_addr(h->get.server_addr), "7f000001:0");
    EXPECT_EQ(in_addr(h->set.server_addr), "0a010002:9");
    dbcom_close(h);

    const std::string path101(101, 'p');
    const struct {
        const char* server;
        int transport;
        const char* printed;
    } refused[] = {
        {nullptr, 0, "Unknown protocol used.\n"},
        {nullptr, 5, "Unknown protocol used.\n"},
        {nullptr, 3, "Null set server names\nNull get server names\n"},
        {"1..2:80", 4, "Null set server names\nNull get server names\n"},
        {path101.c_str(), 1, "Null set server names\nNull get server names\n"},
    };
    for (const auto& r : refused) {
        SCOPED_TRACE(r.transport);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(dbcom_init(r.server, r.server, r.transport), nullptr);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), r.printed);
    }
}

class dbcom_dgram_test : public sandbox_test {};

// The datagram transport binds its own path for the get channel only when it
// first reads, replaces a stale file there, and removes it on close.
TEST_F(dbcom_dgram_test, get_over_datagrams)
{
    unique_fd srv(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    auto addr = make_un_addr(get_path().c_str());
    ASSERT_TRUE(addr);
    ASSERT_EQ(bind(srv.get(), addr->get(), addr->len), 0);
    std::thread server([&] {
        uint8_t buf[2048];
        sockaddr_un from{};
        socklen_t from_len = sizeof from;
        if (recvfrom(srv.get(), buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &from_len) <= 0)
            return;
        bytes r = reply(1, 0, "key 42\n");
        sendto(srv.get(), r.data(), r.size(), 0, reinterpret_cast<sockaddr*>(&from), from_len);
    });
    std::string own = at("/tmp/dlg_") + std::to_string(getpid());
    testutil::write_file(own, "stale");

    dbcom_handle* h = dbcom_init(nullptr, nullptr, 2);
    ASSERT_NE(h, nullptr);
    opt value;
    opt error;
    EXPECT_EQ(dbcom_get(h, "key", &value, &error), 0);
    server.join();
    EXPECT_EQ(value, opt("42"));
    EXPECT_TRUE(testutil::exists(own));
    EXPECT_FALSE(testutil::exists(at("/tmp/dls_") + std::to_string(getpid())));
    dbcom_close(h);
    EXPECT_FALSE(testutil::exists(own));
}

TEST(dbcom_text_lines, parse_line_splits_and_unescapes)
{
    const struct {
        std::string line;
        opt key, value, rest;
    } cases[] = {
        {"key 1\n", "key", "1", {}},
        {"key\n", "key\n", {}, {}},
        {"a\\ b c\\ d\n", "a b", "c d", {}},
        {"k\\\nx v\n", "k\nx", "v", {}},
        {"k\\: v\n", "k\\:", "v", {}},
        {"k a\\:b\n", "k", "a:b", {}},
        {"k a\\xb\n", "k", "a\\xb", {}},
        {"k a\\\\b\n", "k", "a\\b", {}},
        {"k a\\\nb\n", "k", "a\nb", {}},
        {"k a\\ b\n", "k", "a b", {}},
        {"k v\nnext 2\n", "k", "v", "next 2\n"},
        {std::string("k v\n\0junk", 9), "k", "v", {}},
        {std::string("k v\0w\n", 6), "k", "v", {}},
        {"k v", "k", "v", {}},
        {"k \n", "k", {}, {}},
        {"", {}, {}, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.line));
        opt key = "stale";
        opt value = "stale";
        std::optional<std::string_view> rest;
        ASSERT_EQ(dbcom_parse_line(&c.line, &key, &value, &rest), 0);
        EXPECT_EQ(key, c.key);
        EXPECT_EQ(value, c.value);
        EXPECT_EQ(rest ? opt(std::string(*rest)) : std::nullopt, c.rest);
    }
    EXPECT_EQ(dbcom_parse_line(nullptr, nullptr, nullptr, nullptr), 1);
    std::string copy;
    EXPECT_EQ(dbcom_escape_spaces(nullptr, &copy), 1);
    EXPECT_EQ(dbcom_escape_spaces("a", nullptr), 1);
    ASSERT_EQ(dbcom_escape_spaces("a b  c", &copy), 0);
    EXPECT_EQ(copy, "a\\ b\\ \\ c");
}

}  // namespace
