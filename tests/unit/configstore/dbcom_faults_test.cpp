// The configd client when the system fails it: sockets that cannot be made
// or connected, writes that fail, are cut or meet a closed peer, waits and
// reads that fail, a configd that answers garbage, and a configd that stalls
// until the stuck marker is due. Each failure must leave the error text the
// caller logs and a closed channel; a reconnect after EPIPE must carry on.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "configstore/dbcom_msg.h"
#include "dorvfault.h"
#include "scripted_server.h"
#include "test_util.h"

namespace {

using bytes = std::vector<uint8_t>;
using cstest::get_path;
using cstest::opt;
using cstest::reply;
using cstest::reply_plan;
using cstest::scripted_server;
using dbcom_fault_test = cstest::client_test;

const std::vector<bytes> ok_answer = {reply(1, 0, "k 1\n")};

// @GET and @SET stand for the default server paths.
std::string with_paths(std::string text)
{
    for (auto [mark, fixed] : {std::pair{"@GET", "/tmp/confd_get"}, std::pair{"@SET", "/tmp/confd_set"}})
        for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark))
            text.replace(at, 4, testutil::at(fixed));
    return text;
}

struct fault_case {
    const char* name;
    const char* rules;       // "" for none; every rule must fire
    std::vector<bytes> out;  // what the server answers the first request
    bool close;              // and then closes the connection
    int rc;
    opt result;
    std::string error;   // the error text must start with this
    size_t requests;     // requests the server read whole
    int conn;            // connection of the last of them
    std::string syslog;  // a line the client must have sent to syslog
};

void PrintTo(const fault_case& c, std::ostream* os)
{
    *os << c.name;
}

class transaction_fault_test : public dbcom_fault_test, public ::testing::WithParamInterface<fault_case> {};

TEST_P(transaction_fault_test, error_text_and_channel)
{
    const fault_case& c = GetParam();
    // configd is sane again for the next transaction.
    scripted_server srv(get_path().c_str(), [&c](const cstest::seen_request&, int n) {
        return n == 0 ? reply_plan{c.out, c.close} : reply_plan{ok_answer, false};
    });
    if (*c.rules)
        dorvfault::arm(c.rules);
    opt result;
    opt error;
    ::testing::internal::CaptureStderr();
    int rc = transaction(&result, &error);
    std::string logged = ::testing::internal::GetCapturedStderr();
    dorvfault::reset();
    EXPECT_EQ(rc, c.rc);
    EXPECT_EQ(result, c.result);
    std::string want = with_paths(c.error);
    EXPECT_EQ(error.value_or("").substr(0, want.size()), want) << error.value_or("");
    EXPECT_EQ(handle_->get.open, c.rc == 0 ? 1 : 0);
    EXPECT_EQ(handle_->get.fd.valid(), c.rc == 0);
    EXPECT_NE(logged.find(c.syslog), std::string::npos) << logged;
    srv.wait_for(c.requests);
    auto reqs = srv.requests();
    EXPECT_EQ(reqs.size(), c.requests);
    EXPECT_EQ(reqs.empty() ? 0 : reqs.back().conn, c.conn);
    // A failed channel is opened afresh by the next transaction, which works.
    opt again;
    EXPECT_EQ(transaction(&again, nullptr), 0);
    EXPECT_EQ(again, opt("k 1\n"));
}

const std::string no_answer = "Error receiving transaction response: ";

// clang-format off
INSTANTIATE_TEST_SUITE_P(
    faults, transaction_fault_test,
    ::testing::Values(
        fault_case{"socket_fails", "socket fd=unix errno=EMFILE", ok_answer, false, 1, {},
                   "Couldn't make unix domain socket: Too many open files\n", 0, 0, ""},
        fault_case{"connect_refused", "connect fd=unix errno=ECONNREFUSED", ok_answer, false, 1, {},
                   "Couldn't connect to @GET:  Connection refused\n", 0, 0, ""},
        fault_case{"write_fails", "send fd=unix errno=ENOBUFS", ok_answer, false, 1, {},
                   "Error in write: No buffer space available\n", 0, 0, ""},
        fault_case{"write_cut", "send fd=unix short=5", ok_answer, false, 1, {}, "Error in write:  message truncated\n",
                   0, 0, ""},
        // configd closed the connection: one reconnect, and the request goes out on it.
        fault_case{"epipe_reconnects", "send fd=unix errno=EPIPE", ok_answer, false, 0, "k 1\n", "", 1, 2, ""},
        fault_case{"epipe_reconnect_refused", "send fd=unix errno=EPIPE; connect fd=unix nth=2 errno=ECONNREFUSED",
                   ok_answer, false, 1, {}, "Couldn't connect to @GET:  Connection refused\n", 0, 0, ""},
        fault_case{"epipe_twice", "send fd=unix count=2 errno=EPIPE", ok_answer, false, 1, {},
                   "Error in write: Broken pipe\n", 0, 0, ""},
        fault_case{"epipe_then_cut", "send fd=unix errno=EPIPE; send fd=unix nth=2 short=3", ok_answer, false, 1, {},
                   "Error in write: message truncated\n", 0, 0, ""},
        fault_case{"wait_fails", "select errno=ENOMEM", ok_answer, false, 1, {},
                   no_answer + "Cannot allocate memory.\n", 1, 1, ""},
        fault_case{"wait_interrupted", "select errno=EINTR", ok_answer, false, 0, "k 1\n", "", 1, 1, ""},
        fault_case{"header_wait_fails", "select nth=2 errno=ENOMEM", ok_answer, false, 1, {},
                   no_answer + "Cannot allocate memory.\n", 1, 1, ""},
        fault_case{"header_read_fails", "recv fd=unix errno=ECONNRESET", ok_answer, false, 1, {},
                   no_answer + "Connection reset by peer.\n", 1, 1, ""},
        // Garbage or a cut answer from configd.
        fault_case{"bad_magic", "", {cstest::wire(2, 1, 0, 0x5A5A5A5A, "")}, false, 1, {}, no_answer, 1, 1,
                   "dbcom_read_message:1194: magic num mismatch = 5a5a5a5a or invalid dbcom operation = 1\n"},
        // After a bad header all that is queued goes, up to the peer's close.
        fault_case{"bad_op", "", {cstest::wire(2, 0, 0, DBCOM_MAGIC, "junk")}, true, 1, {}, no_answer, 1, 1,
                   "dbcom_read_message:1201: flushing socket: bytes_read = 4 msg = junk\n"},
        fault_case{"bad_op_6", "", {cstest::wire(2, 6, 0, DBCOM_MAGIC, "")}, false, 1, {}, no_answer, 1, 1,
                   "dbcom_read_message:1194: magic num mismatch = a5a5a5a5 or invalid dbcom operation = 6\n"},
        // Diagnostics are C text: one cut by a NUL keeps its start.
        fault_case{"diagnostics_joined_as_text", "", {reply(1, 0x1002, std::string("ab\0cd", 5)), reply(1, 1, "x\n")},
                   false, 1, {}, "abx\n", 1, 1, ""},
        fault_case{"cut_header_then_close", "", {{2, 1, 0}}, true, 1, {}, no_answer, 1, 1, ""},
        fault_case{"cut_body_then_close", "", {{2, 1, 0, 0, 0, 9, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 'k'}}, true, 1, {},
                   no_answer, 1, 1, "configd: receiving from dbcom socket failed: 0, err: "}),
    [](const auto& p) { return std::string(p.param.name); });
// clang-format on

void wake(int) {}

// configd never answers while signals keep cutting the waits short: once
// more than the response wait has passed since it last answered, the stuck
// report goes out and the marker is made, and the wait goes on; a marker
// that cannot be made is reported the same way. Then the wait times out.
TEST_F(dbcom_fault_test, stalled_configd_leaves_the_stuck_marker)
{
    const std::string marker = testutil::at("/tmp/run/configd_stuck_notify");
    scripted_server srv(get_path().c_str(), [](const cstest::seen_request&, int) { return reply_plan{}; });
    struct sigaction sa {};
    sa.sa_handler = wake;  // no SA_RESTART: the wait sees EINTR
    struct sigaction old {};
    ASSERT_EQ(sigaction(SIGUSR2, &sa, &old), 0);
    dorvfault::handle refused = dorvfault::arm("open path=" + marker + " nth=2 errno=EACCES");

    std::atomic<bool> done{false};
    pthread_t waiter = pthread_self();
    std::thread interrupter([&] {
        // Until the second stuck report has tried the marker (each is due two
        // seconds after the last), with a bound should it never come.
        auto until = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (!done && dorvfault::fired(refused) == 0 && std::chrono::steady_clock::now() < until) {
            pthread_kill(waiter, SIGUSR2);
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
        }
    });
    opt result;
    opt error;
    ::testing::internal::CaptureStderr();
    int rc = transaction(&result, &error);
    std::string logged = ::testing::internal::GetCapturedStderr();
    done = true;
    interrupter.join();
    sigaction(SIGUSR2, &old, nullptr);

    EXPECT_EQ(rc, 1);
    EXPECT_EQ(error, opt("Timeout waiting for response from database server.\n"));
    EXPECT_EQ(dorvfault::fired(refused), 1u);
    EXPECT_TRUE(testutil::exists(marker));
    EXPECT_NE(logged.find("Configd Stuck Detected: No New Connection happened for last "), std::string::npos) << logged;
    EXPECT_NE(logged.find("Failure in Configd Stuck Handling Sequence, Unable to touch " + marker + "\n"),
              std::string::npos)
        << logged;
}

// --- the other transports and the set channel ---------------------------------

struct transport_case {
    const char* name;
    int transport;
    const char* server;  // both names; null: the default paths
    uint8_t op;
    const char* rules;
    std::string error;
    std::string output;  // what the socket helpers print, on either stream
};

void PrintTo(const transport_case& c, std::ostream* os)
{
    *os << c.name;
}

class transport_fault_test : public sandbox_test, public ::testing::WithParamInterface<transport_case> {};

TEST_P(transport_fault_test, first_request_fails_with_its_reason)
{
    const transport_case& c = GetParam();
    dbcom_response_wait = 1;
    dbcom_handle* h = dbcom_init(c.server, c.server, c.transport);
    ASSERT_NE(h, nullptr);
    if (*c.rules)
        dorvfault::arm(c.rules);
    opt error;
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    EXPECT_EQ(dbcom_do_transaction(h, c.op, 0, nullptr, 0, nullptr, &error), 1);
    std::string printed = ::testing::internal::GetCapturedStdout() + ::testing::internal::GetCapturedStderr();
    dbcom_channel& ch = c.op == 3 || c.op == 5 ? h->set : h->get;
    EXPECT_EQ(ch.open, 0);
    EXPECT_FALSE(ch.fd.valid());
    dbcom_close(h);
    dbcom_response_wait = 300;
    EXPECT_EQ(error, opt(with_paths(c.error)));
    EXPECT_NE(printed.find(c.output), std::string::npos) << printed;
}

const char* const bad_fd = "Error in write:  Bad file descriptor\n";

INSTANTIATE_TEST_SUITE_P(
    transports, transport_fault_test,
    ::testing::Values(
        transport_case{"set_channel", 1, nullptr, 3, "", "Couldn't connect to @SET:  No such file or directory\n", ""},
        transport_case{"op5_set_channel", 1, nullptr, 5, "", "Couldn't connect to @SET:  No such file or directory\n",
                       ""},
        transport_case{"unix_dgram_no_server", 2, nullptr, 1, "", "Error in write:  No such file or directory\n", ""},
        // A bind that fails leaves the channel on no socket: the send says so.
        transport_case{"unix_dgram_bind_fails", 2, nullptr, 1, "bind fd=unix errno=EADDRINUSE", bad_fd,
                       "bind: Address already in use\n"},
        transport_case{"inet_stream_refused", 3, "127.0.0.1:tcpmux", 1, "",
                       "Couldn't connect to localhost:  Connection refused\n", ""},
        transport_case{"inet_get_socket_fails", 3, "127.0.0.1:1", 4, "socket fd=inet errno=ENFILE",
                       "Couldn't make inet domain socket: Too many open files in system\n", ""},
        transport_case{"inet_set_socket_fails", 3, "127.0.0.1:1", 3, "socket fd=inet errno=ENFILE",
                       "Couldn't make inet socket: Too many open files in system\n", ""},
        transport_case{"inet_dgram_bind_fails", 4, "127.0.0.1:1", 1, "bind fd=inet errno=EADDRINUSE", bad_fd,
                       "bind_inet_domain error\n"},
        transport_case{"inet_dgram_unanswered", 4, "127.0.0.1:1", 2, "",
                       "Timeout waiting for response from database server.\n", ""}),
    [](const auto& p) { return std::string(p.param.name); });

// A request whose data exceed one message goes out as a run of them; one
// whose items leave no room for data cannot go at all.
TEST_F(dbcom_fault_test, long_data_goes_out_as_a_run_of_messages)
{
    scripted_server srv(get_path().c_str(), [](const cstest::seen_request&, int) { return reply_plan{ok_answer}; });
    std::string data(70000, 'd');
    data[0] = 'a';
    data.back() = 'z';
    opt result;
    ASSERT_EQ(transaction(&result, nullptr, data), 0);
    auto reqs = srv.requests();
    ASSERT_EQ(reqs.size(), 1u);
    ASSERT_EQ(reqs[0].messages.size(), 2u);
    EXPECT_EQ(reqs[0].messages[0].size(), 65547u);
    EXPECT_EQ(reqs[0].messages[0][2], 0x10);
    EXPECT_EQ(reqs[0].messages[1][2], 0x00);
    EXPECT_EQ(reqs[0].data, data);

    handle_->client_addr = std::string(65535, 'a');
    opt error;
    EXPECT_EQ(transaction(&result, &error), 1);
    EXPECT_EQ(error, opt("dbcom_do_transaction: Unable to build request message.\n"));
    EXPECT_EQ(result, std::nullopt);
    EXPECT_EQ(handle_->get.open, 0);
}

// Calls the daemon never makes but the library takes: no handle, no key, no
// output slots, a text already ending in a line feed.
TEST_F(dbcom_fault_test, library_edges)
{
    EXPECT_EQ(dbcom_do_transaction(nullptr, 1, 0, nullptr, 0, nullptr, nullptr), 1);
    EXPECT_EQ(dbcom_do_transaction(handle_, 1, 0, nullptr, -1, nullptr, nullptr), 1);
    EXPECT_EQ(dbcom_request(nullptr, 1, nullptr, nullptr, nullptr), 1);
    EXPECT_EQ(dbcom_request(handle_, 1, nullptr, nullptr, nullptr), 1);  // no configd
    EXPECT_EQ(dbcom_get(handle_, "k", nullptr, nullptr), 1);
    opt value = "stale";
    EXPECT_EQ(dbcom_get(nullptr, "key", &value, nullptr), 1);
    EXPECT_EQ(value, std::nullopt);
    EXPECT_EQ(dbcom_get(handle_, nullptr, &value, nullptr), 1);
    EXPECT_EQ(dbcom_close(nullptr), 0);
    for (std::string text : {"k\n", ""}) {
        std::string sent = text;
        EXPECT_EQ(dbcom_request(handle_, 1, &sent, nullptr, nullptr), 1);
        EXPECT_EQ(sent, text);
    }
    // Responses not for this transaction, or with nothing to take.
    bool failed = false;
    opt result;
    opt error;
    for (const bytes& m : {bytes{2, 1, 0}, cstest::wire(2, 1, 0, 0xA5A5A5A4, "k v\n"), reply(2, 0, "k v\n")})
        EXPECT_TRUE(dbcom_take_response(m, 1, &result, &error, &failed));
    EXPECT_FALSE(dbcom_take_response(reply(1, 1, ""), 1, &result, &error, &failed));
    EXPECT_FALSE(failed);
    EXPECT_EQ(result, std::nullopt);
    EXPECT_EQ(error, std::nullopt);
}

// A socket numbered past what select can wait on fails the wait, not the
// process.
TEST_F(dbcom_fault_test, socket_past_the_select_limit)
{
    rlimit lim{};
    getrlimit(RLIMIT_NOFILE, &lim);
    lim.rlim_cur = lim.rlim_max;
    if (lim.rlim_max <= FD_SETSIZE + 1 || setrlimit(RLIMIT_NOFILE, &lim) != 0)
        GTEST_SKIP() << "no descriptor past " << FD_SETSIZE << " here";
    scripted_server srv(get_path().c_str(), [](const cstest::seen_request&, int) { return reply_plan{ok_answer}; });
    ASSERT_EQ(dbcom_connect(handle_, DBCOM_GET_CHANNEL, nullptr), 0);
    // 64 KiB socket buffers, which the kernel reports doubled.
    int size = 0;
    socklen_t len = sizeof size;
    ASSERT_EQ(getsockopt(handle_->get.fd.get(), SOL_SOCKET, SO_RCVBUF, &size, &len), 0);
    EXPECT_EQ(size, 131072);
    EXPECT_EQ(fcntl(handle_->get.fd.get(), F_GETFD), FD_CLOEXEC);
    int high = fcntl(handle_->get.fd.get(), F_DUPFD_CLOEXEC, FD_SETSIZE);
    ASSERT_GE(high, FD_SETSIZE);
    handle_->get.fd.reset(high);
    opt error;
    EXPECT_EQ(transaction(nullptr, &error), 1);
    EXPECT_EQ(error, opt("Error receiving transaction response: Bad file descriptor.\n"));
    EXPECT_EQ(handle_->get.open, 0);
}

}  // namespace
