// A configd stand-in for the unit tests: a thread serving a unix stream
// socket one connection at a time, recording every request and answering
// each as the test's responder says. Requests are read from the wire format
// here, not with the client's own parser, so that a mistake on one side shows.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "base/files.h"
#include "configstore/dbcom.h"
#include "configstore/dbcom_msg.h"
#include "test_util.h"

namespace cstest {

// A message in wire order, written byte by byte so that the client's own
// builders are not trusted to make the replies it is tested against.
inline std::vector<uint8_t> wire(uint8_t kind, uint8_t op, uint16_t flags, uint32_t magic, const std::string& body)
{
    std::vector<uint8_t> m = {kind,
                              op,
                              static_cast<uint8_t>(flags >> 8),
                              static_cast<uint8_t>(flags),
                              static_cast<uint8_t>(body.size() >> 8),
                              static_cast<uint8_t>(body.size()),
                              0,
                              0};
    for (int i = 0; i < 4; ++i)
        m.push_back(static_cast<uint8_t>(magic >> (24 - 8 * i)));
    m.insert(m.end(), body.begin(), body.end());
    return m;
}

inline std::vector<uint8_t> reply(uint8_t op, uint16_t flags, const std::string& body)
{
    return wire(2, op, flags, 0xA5A5A5A5, body);
}

// One request as the server saw it: every message of its run.
struct seen_request {
    int conn = 0;  // 1 for the first accepted connection
    std::vector<std::vector<uint8_t>> messages;
    std::string data;  // the data of all messages (what follows the user and address items), joined
};

// Two connected unix sockets: the test's end and the peer's.
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
    void put(const std::vector<uint8_t>& b) const
    {
        ASSERT_EQ(send(theirs.get(), b.data(), b.size(), 0), ssize_t(b.size()));
    }
};

struct reply_plan {
    std::vector<std::vector<uint8_t>> messages;  // written in this order
    bool close = false;                          // then close the connection
};

class scripted_server {
  public:
    // Called for the n-th request (0-based) of the server's life.
    using responder = std::function<reply_plan(const seen_request&, int n)>;

    scripted_server(const char* path, responder r) : path_(path), respond_(std::move(r))
    {
        int p[2];
        listen_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
        unlink(path);
        if (pipe2(p, O_CLOEXEC) != 0 || bind(listen_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listen_.get(), 8) != 0) {
            ADD_FAILURE() << "scripted server cannot listen on " << path;
            return;
        }
        stop_rd_.reset(p[0]);
        stop_wr_.reset(p[1]);
        thread_ = std::thread([this] { run(); });
    }

    ~scripted_server()
    {
        if (stop_wr_.valid() && write(stop_wr_.get(), "x", 1) < 0)
            perror("stop pipe");
        if (thread_.joinable())
            thread_.join();
        unlink(path_.c_str());
    }

    std::vector<seen_request> requests()
    {
        std::lock_guard lock(mu_);
        return seen_;
    }

    // Waits up to ten seconds until `n` requests have arrived (a client may
    // give up on a request before the server has recorded it). False if they
    // never did.
    bool wait_for(size_t n)
    {
        std::unique_lock lock(mu_);
        return cv_.wait_for(lock, std::chrono::seconds(10), [&] { return seen_.size() >= n; });
    }

  private:
    // Reads exactly n bytes, waiting on fd and the stop pipe. False on stop or close.
    bool read_exact(int fd, uint8_t* buf, size_t n)
    {
        for (size_t got = 0; got < n;) {
            pollfd p[2] = {{fd, POLLIN, 0}, {stop_rd_.get(), POLLIN, 0}};
            ssize_t r = poll(p, 2, -1) > 0 && !(p[1].revents & POLLIN) ? recv(fd, buf + got, n - got, 0) : -1;
            if (r <= 0)
                return false;
            got += static_cast<size_t>(r);
        }
        return true;
    }

    // Serves one connection until the client or the plan closes it. A request
    // is a run of messages, until one without 0x1000.
    void serve(int fd, int conn)
    {
        for (seen_request req{conn, {}, {}};; req = seen_request{conn, {}, {}}) {
            for (bool more = true; more;) {
                std::vector<uint8_t> msg(DBCOM_HEADER_LEN);
                if (!read_exact(fd, msg.data(), msg.size()))
                    return;
                msg.resize(DBCOM_HEADER_LEN + ((msg[4] << 8) | msg[5]));
                if (!read_exact(fd, msg.data() + DBCOM_HEADER_LEN, msg.size() - DBCOM_HEADER_LEN))
                    return;
                size_t pos = DBCOM_HEADER_LEN;
                for (int item = 0; item < 2 && pos + 4 <= msg.size(); ++item)
                    pos += 4 + ((msg[pos + 2] << 8) | msg[pos + 3]);
                if (pos < msg.size())
                    req.data.append(msg.begin() + static_cast<long>(pos), msg.end());
                more = msg[2] & 0x10;
                req.messages.push_back(std::move(msg));
            }
            int n;
            {
                std::lock_guard lock(mu_);
                n = static_cast<int>(seen_.size());
                seen_.push_back(req);
                cv_.notify_all();
            }
            reply_plan plan = respond_(req, n);
            for (const auto& m : plan.messages)
                if (send(fd, m.data(), m.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(m.size()))
                    return;
            if (plan.close)
                return;
        }
    }

    void run()
    {
        // Signals meant for the code under test (SIGRTMIN, signal 10) must not
        // land here and cut a poll or recv short.
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        for (int conn = 1;; ++conn) {
            pollfd p[2] = {{listen_.get(), POLLIN, 0}, {stop_rd_.get(), POLLIN, 0}};
            if (poll(p, 2, -1) <= 0 || (p[1].revents & POLLIN))
                return;
            unique_fd fd(accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (fd.valid())
                serve(fd.get(), conn);
        }
    }

    std::string path_;
    responder respond_;
    unique_fd listen_;
    unique_fd stop_rd_;
    unique_fd stop_wr_;
    std::thread thread_;
    std::mutex mu_;
    std::condition_variable cv_;
    std::vector<seen_request> seen_;
};

using opt = std::optional<std::string>;

inline std::string get_path()
{
    return testutil::at("/tmp/confd_get");
}

// A fresh handle on the default servers and a short response wait, so that a
// stalled server costs a second rather than five minutes. The client's
// diagnostics go to syslog: the tests also have them on standard error
// (LOG_PERROR), where they can be read.
class client_test : public sandbox_test {
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
    int transaction(opt* result, opt* error, const std::string& data = "k\n")
    {
        return dbcom_do_transaction(handle_, DBCOM_OP_GET, 0, reinterpret_cast<const uint8_t*>(data.data()),
                                    static_cast<int>(data.size()), result, error);
    }
    dbcom_handle* handle_ = nullptr;
};

}  // namespace cstest
