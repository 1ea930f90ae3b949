// The configd client when the system fails it: sockets that cannot be made
// or connected, writes that fail, are cut or meet a closed peer, waits and
// reads that fail, a configd that answers garbage, and a configd that stalls
// until the stuck marker is due. Each failure must leave the error text the
// caller logs and a closed channel; a reconnect after EPIPE must carry on.
#include <pthread.h>
#include <signal.h>
#include <syslog.h>
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

using cstest::reply;
using cstest::reply_plan;
using cstest::scripted_server;
using opt = std::optional<std::string>;

std::string get_path()
{
    return testutil::at("/tmp/confd_get");
}

// The client's diagnostics go to syslog: the tests also have them on
// standard error (LOG_PERROR), where they can be read.
class dbcom_fault_test : public sandbox_test {
protected:
    void SetUp() override
    {
        sandbox_test::SetUp();
        dbcom_response_wait = 1;
        handle_ = dbcom_init(nullptr, nullptr, DBCOM_UNIX_STREAM);
        ASSERT_NE(handle_, nullptr);
        openlog(nullptr, LOG_PERROR, LOG_USER);
    }
    void TearDown() override
    {
        openlog(nullptr, 0, LOG_USER);  // closelog alone keeps LOG_PERROR
        closelog();
        dbcom_close(handle_);
        dbcom_response_wait = 300;
    }
    int transaction(opt* result, opt* error)
    {
        static const std::string key = "k\n";
        return dbcom_do_transaction(handle_, DBCOM_OP_GET, 0, reinterpret_cast<const uint8_t*>(key.data()),
                                    static_cast<int>(key.size()), result, error);
    }
    dbcom_handle* handle_ = nullptr;
};

std::vector<std::vector<uint8_t>> ok_answer()
{
    return {reply(1, 0, "k 1\n")};
}

struct fault_case {
    const char* name;
    const char* rules;                      // "" for none; every rule must fire
    std::vector<std::vector<uint8_t>> out;  // what the server answers (then closes when `close`)
    bool close;
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
    // Only the first request meets the case's answer; configd is sane again
    // for the next transaction.
    scripted_server srv(get_path().c_str(), [&c](const cstest::seen_request&, int n) {
        return n == 0 ? reply_plan{c.out, c.close} : reply_plan{ok_answer(), false};
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
    std::string err = error.value_or("");
    std::string want = c.error;
    for (size_t at = want.find("@GET"); at != std::string::npos; at = want.find("@GET"))
        want.replace(at, 4, get_path());
    EXPECT_EQ(err.substr(0, want.size()), want) << err;
    EXPECT_EQ(handle_->get.open, c.rc == 0 ? 1 : 0);
    EXPECT_EQ(handle_->get.fd.valid(), c.rc == 0);
    EXPECT_NE(logged.find(c.syslog), std::string::npos) << logged;
    srv.wait_for(c.requests);
    auto reqs = srv.requests();
    EXPECT_EQ(reqs.size(), c.requests);
    if (!reqs.empty()) {
        EXPECT_EQ(reqs.back().conn, c.conn);
    }
    // A failed channel is opened afresh by the next transaction, which works.
    opt again;
    EXPECT_EQ(transaction(&again, nullptr), 0);
    EXPECT_EQ(again, opt("k 1\n"));
}

INSTANTIATE_TEST_SUITE_P(
    faults, transaction_fault_test,
    ::testing::Values(
        fault_case{"socket_fails", "socket fd=unix errno=EMFILE", ok_answer(), false, 1, std::nullopt,
                   "Couldn't make unix domain socket: Too many open files\n", 0, 0, ""},
        fault_case{"connect_refused", "connect fd=unix errno=ECONNREFUSED", ok_answer(), false, 1, std::nullopt,
                   "Couldn't connect to @GET:  Connection refused\n", 0, 0, ""},
        fault_case{"write_fails", "send fd=unix errno=ENOBUFS", ok_answer(), false, 1, std::nullopt,
                   "Error in write: No buffer space available\n", 0, 0, ""},
        fault_case{"write_cut", "send fd=unix short=5", ok_answer(), false, 1, std::nullopt,
                   "Error in write:  message truncated\n", 0, 0, ""},
        // configd closed the connection: one reconnect, and the request goes out on it.
        fault_case{"epipe_reconnects", "send fd=unix errno=EPIPE", ok_answer(), false, 0, "k 1\n", "", 1, 2, ""},
        fault_case{"epipe_reconnect_refused", "send fd=unix errno=EPIPE; connect fd=unix nth=2 errno=ECONNREFUSED",
                   ok_answer(), false, 1, std::nullopt, "Couldn't connect to @GET:  Connection refused\n", 0, 0, ""},
        fault_case{"epipe_twice", "send fd=unix count=2 errno=EPIPE", ok_answer(), false, 1, std::nullopt,
                   "Error in write: Broken pipe\n", 0, 0, ""},
        fault_case{"epipe_then_cut", "send fd=unix errno=EPIPE; send fd=unix nth=2 short=3", ok_answer(), false, 1,
                   std::nullopt, "Error in write: message truncated\n", 0, 0, ""},
        fault_case{"wait_fails", "select errno=ENOMEM", ok_answer(), false, 1, std::nullopt,
                   "Error receiving transaction response: Cannot allocate memory.\n", 1, 1, ""},
        fault_case{"wait_interrupted", "select errno=EINTR", ok_answer(), false, 0, "k 1\n", "", 1, 1, ""},
        fault_case{"header_wait_fails", "select nth=2 errno=ENOMEM", ok_answer(), false, 1, std::nullopt,
                   "Error receiving transaction response: Cannot allocate memory.\n", 1, 1, ""},
        fault_case{"header_read_fails", "recv fd=unix errno=ECONNRESET", ok_answer(), false, 1, std::nullopt,
                   "Error receiving transaction response: Connection reset by peer.\n", 1, 1, ""},
        // Garbage or a cut answer from configd.
        fault_case{"bad_magic", "", {cstest::wire(2, 1, 0, 0x5A5A5A5A, "")}, false, 1, std::nullopt,
                   "Error receiving transaction response: ", 1, 1,
                   "dbcom_read_message:1194: magic num mismatch = 5a5a5a5a or invalid dbcom operation = 1\n"},
        fault_case{"cut_header_then_close", "", {{2, 1, 0}}, true, 1, std::nullopt,
                   "Error receiving transaction response: ", 1, 1, ""},
        fault_case{"cut_body_then_close", "", {{2, 1, 0, 0, 0, 9, 0, 0, 0xA5, 0xA5, 0xA5, 0xA5, 'k'}}, true, 1,
                   std::nullopt, "Error receiving transaction response: ", 1, 1,
                   "configd: receiving from dbcom socket failed: 0, err: "}),
    [](const auto& p) { return std::string(p.param.name); });

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
        // Through two stuck reports, each due two seconds after the last.
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(4500);
        while (!done && std::chrono::steady_clock::now() < until) {
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

}  // namespace
