// The configd client against a scripted server: what goes out for a get,
// how responses are collected, retried and reported, and how the channel
// survives a server that closes or stalls.
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <vector>

#include "configstore/dbcom.h"
#include "configstore/dbcom_msg.h"
#include "scripted_server.h"
#include "test_util.h"

namespace {

using bytes = std::vector<uint8_t>;
using cstest::reply;
using cstest::reply_plan;
using cstest::scripted_server;
using cstest::seen_request;
using cstest::get_path;
using cstest::opt;

std::string times3(const std::string& s)
{
    return s + s + s;
}

class dbcom_client_test : public cstest::client_test {
protected:
    static scripted_server::responder always(std::vector<bytes> msgs)
    {
        return [msgs](const seen_request&, int) { return reply_plan{msgs, false}; };
    }
};

TEST_F(dbcom_client_test, get_sends_user_item_key_line_feed_and_nul)
{
    if (getuid() != 0)
        GTEST_SKIP() << "the request names the user running the tests: its bytes below are root's";
    scripted_server srv(get_path().c_str(), always({reply(1, 0, "a 1\n")}));
    opt value;
    opt error;
    ASSERT_EQ(dbcom_get(handle_, "a", &value, &error), 0);
    EXPECT_EQ(value, opt("1"));
    EXPECT_EQ(error, std::nullopt);
    auto reqs = srv.requests();
    ASSERT_EQ(reqs.size(), 1u);
    ASSERT_EQ(reqs[0].messages.size(), 1u);
    const bytes expected = {0x01, 0x01, 0x00, 0x00, 0x00, 0x0F, 0x00, 0x00, 0xA5, 0xA5, 0xA5, 0xA5, 0x01, 0x00,
                            0x00, 0x04, 'r',  'o',  'o',  't',  0x00, 0x00, 0x00, 0x00, 'a',  '\n', 0x00};
    EXPECT_EQ(reqs[0].messages[0], expected);
    // A read never needs the set channel.
    EXPECT_EQ(handle_->set.open, 0);
    EXPECT_EQ(handle_->get.open, 1);
}

// --- what the answers make of a get ---------------------------------------

struct answer_case {
    const char* name;
    std::vector<bytes> replies;  // sent for every request after the first `silent` ones
    int rc;
    opt value;
    opt error;
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
        answer_case{"plain", {reply(1, 0, "key 1\n")}, 0, "1", std::nullopt, 1, 1},
        answer_case{"no_result_text", {reply(1, 0, "")}, 0, std::nullopt, std::nullopt, 3, 1},
        answer_case{"key_line_without_value", {reply(1, 0, "key\n")}, 0, std::nullopt, std::nullopt, 1, 1},
        answer_case{"other_op_first", {reply(2, 0, "key wrong\n"), reply(1, 0, "key right\n")}, 0, "right",
                    std::nullopt, 1, 1},
        answer_case{"three_parts",
                    {reply(1, 0x1000, "key v"), reply(1, 0x1000, "al"), reply(1, 0, "ue\n")},
                    0,
                    "value",
                    std::nullopt,
                    1,
                    1},
        answer_case{"diagnostic_only", {reply(1, 0x0002, "no such key\n")}, 0, std::nullopt,
                    times3("no such key\n"), 3, 1},
        answer_case{"diagnostic_then_value", {reply(1, 0x1002, "see also\n"), reply(1, 0, "key 5\n")}, 0, "5",
                    std::nullopt, 1, 1},
        answer_case{"text_flag_4_then_value", {reply(1, 0x1004, "see also\n"), reply(1, 0, "key 6\n")}, 0, "6",
                    std::nullopt, 1, 1},
        answer_case{"failure", {reply(1, 0x0001, "denied\n")}, 1, std::nullopt, times3("denied\n"), 3, 3},
        // 0x0001 fails the attempt even when a value follows it.
        answer_case{"failure_then_value", {reply(1, 0x1003, "diag\n"), reply(1, 0, "key 7\n")}, 1, std::nullopt,
                    times3("diag\n"), 3, 3},
        answer_case{"answer_after_one_timeout", {reply(1, 0, "key on\n")}, 0, "on", std::nullopt, 2, 2, 1}),
    [](const auto& p) { return std::string(p.param.name); });

// A transaction without data still goes out: one message of the items alone.
TEST_F(dbcom_client_test, empty_data_goes_out_as_one_message)
{
    scripted_server srv(get_path().c_str(), always({reply(1, 0, "k v\n")}));
    opt result;
    ASSERT_EQ(transaction(&result, nullptr, ""), 0);
    EXPECT_EQ(result, opt("k v\n"));
    ASSERT_EQ(srv.requests().size(), 1u);
    EXPECT_EQ(srv.requests()[0].data, "");
}

// --- handle set-up ----------------------------------------------------------

std::string un_path(const std::optional<dbcom_addr>& a)
{
    return a ? reinterpret_cast<const sockaddr_un*>(&a->storage)->sun_path : "<none>";
}

TEST(dbcom_init_test, transports)
{
    dbcom_handle* h = dbcom_init(nullptr, nullptr, DBCOM_UNIX_STREAM);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(un_path(h->get.server_addr), testutil::at("/tmp/confd_get"));
    EXPECT_EQ(un_path(h->set.server_addr), testutil::at("/tmp/confd_set"));
    // The family's two bytes, the path and its NUL.
    EXPECT_EQ(h->get.server_addr->len, 2 + testutil::at("/tmp/confd_get").size() + 1);
    dbcom_close(h);

    h = dbcom_init("127.0.0.1:8080", "127.0.0.2:9", DBCOM_INET_STREAM);
    ASSERT_NE(h, nullptr);
    const auto* in = reinterpret_cast<const sockaddr_in*>(&h->get.server_addr->storage);
    EXPECT_EQ(ntohl(in->sin_addr.s_addr), 0x7F000001u);
    EXPECT_EQ(ntohs(in->sin_port), 8080);
    in = reinterpret_cast<const sockaddr_in*>(&h->set.server_addr->storage);
    EXPECT_EQ(ntohl(in->sin_addr.s_addr), 0x7F000002u);
    dbcom_close(h);

    for (int transport : {0, 5}) {
        SCOPED_TRACE(transport);
        ::testing::internal::CaptureStderr();
        EXPECT_EQ(dbcom_init(nullptr, nullptr, transport), nullptr);
        EXPECT_EQ(::testing::internal::GetCapturedStderr(), "Unknown protocol used.\n");
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
    std::string own = testutil::at("/tmp/dlg_") + std::to_string(getpid());
    testutil::write_file(own, "stale");

    dbcom_handle* h = dbcom_init(nullptr, nullptr, DBCOM_UNIX_DGRAM);
    ASSERT_NE(h, nullptr);
    opt value;
    opt error;
    EXPECT_EQ(dbcom_get(h, "key", &value, &error), 0);
    server.join();
    EXPECT_EQ(value, opt("42"));
    EXPECT_TRUE(testutil::exists(own));
    EXPECT_FALSE(testutil::exists(testutil::at("/tmp/dls_") + std::to_string(getpid())));
    dbcom_close(h);
    EXPECT_FALSE(testutil::exists(own));
}

// --- text lines ---------------------------------------------------------------

TEST(dbcom_text_lines, parse_line_splits_and_unescapes)
{
    const struct {
        std::string line;
        opt key;
        opt value;
        opt rest;
    } cases[] = {
        {"key 1\n", "key", "1", std::nullopt},
        {"key\n", "key\n", std::nullopt, std::nullopt},
        {"a\\ b c\\ d\n", "a b", "c d", std::nullopt},
        {"k\\\nx v\n", "k\nx", "v", std::nullopt},
        {"k\\: v\n", "k\\:", "v", std::nullopt},
        {"k a\\:b\n", "k", "a:b", std::nullopt},
        {"k a\\xb\n", "k", "a\\xb", std::nullopt},
        {"k a\\\\b\n", "k", "a\\b", std::nullopt},
        {"k a\\\nb\n", "k", "a\nb", std::nullopt},
        {"k a b\n", "k", "a b", std::nullopt},
        {"k v\nnext 2\n", "k", "v", "next 2\n"},
        {std::string("k v\n\0junk", 9), "k", "v", std::nullopt},
        {std::string("k v\0w\n", 6), "k", "v", std::nullopt},
        {"k v", "k", "v", std::nullopt},
        {"k \n", "k", std::nullopt, std::nullopt},
        {"", std::nullopt, std::nullopt, std::nullopt},
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
}

}  // namespace
