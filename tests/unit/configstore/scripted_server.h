// A configd stand-in for the client's unit tests: a thread serving a unix
// stream socket one connection at a time, recording every request and
// answering each with scripted bytes.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "configstore/dbcom_msg.h"
#include "core/files.h"

namespace cstest {

// A message in wire order, written byte by byte so that the client's own
// builders are not trusted to make the replies it is tested against.
inline std::vector<uint8_t> wire(uint8_t kind, uint8_t op, uint16_t flags, uint32_t magic, const std::string& body)
{
    std::vector<uint8_t> m(DBCOM_HEADER_LEN + body.size());
    m[0] = kind;
    m[1] = op;
    m[2] = static_cast<uint8_t>(flags >> 8);
    m[3] = static_cast<uint8_t>(flags);
    m[4] = static_cast<uint8_t>(body.size() >> 8);
    m[5] = static_cast<uint8_t>(body.size());
    for (int i = 0; i < 4; ++i)
        m[8 + i] = static_cast<uint8_t>(magic >> (24 - 8 * i));
    for (size_t i = 0; i < body.size(); ++i)
        m[DBCOM_HEADER_LEN + i] = static_cast<uint8_t>(body[i]);
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
    uint8_t op = 0;
    std::string user;
    std::string data;  // the data of all messages, joined
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
        if (pipe2(p, O_CLOEXEC) != 0)
            return;
        stop_rd_.reset(p[0]);
        stop_wr_.reset(p[1]);
        listen_.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path, sizeof addr.sun_path - 1);
        unlink(path);
        if (bind(listen_.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
            listen(listen_.get(), 8) != 0)
            return;
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

    bool running() const { return thread_.joinable(); }

    std::vector<seen_request> requests()
    {
        std::lock_guard lock(mu_);
        return seen_;
    }

    int connections()
    {
        std::lock_guard lock(mu_);
        return conns_;
    }

    // Blocks until `n` requests have arrived (for requests left unanswered,
    // which the client may give up on before the server has recorded them).
    void wait_requests(size_t n)
    {
        std::unique_lock lock(mu_);
        cv_.wait(lock, [&] { return seen_.size() >= n; });
    }

    // Blocks until the server has closed `n` connections on its own.
    void wait_closed(int n)
    {
        std::unique_lock lock(mu_);
        cv_.wait(lock, [&] { return closed_ >= n; });
    }

private:
    // Waits for fd (or the stop pipe). False on stop.
    bool wait_readable(int fd)
    {
        pollfd p[2] = {{fd, POLLIN, 0}, {stop_rd_.get(), POLLIN, 0}};
        return poll(p, 2, -1) > 0 && !(p[1].revents & POLLIN);
    }

    bool read_exact(int fd, uint8_t* buf, size_t n)
    {
        size_t got = 0;
        while (got < n) {
            if (!wait_readable(fd))
                return false;
            ssize_t r = recv(fd, buf + got, n - got, 0);
            if (r <= 0)
                return false;
            got += static_cast<size_t>(r);
        }
        return true;
    }

    // Reads one run of request messages (until one without 0x1000).
    bool read_request(int fd, seen_request* req)
    {
        for (;;) {
            std::vector<uint8_t> msg(DBCOM_HEADER_LEN);
            if (!read_exact(fd, msg.data(), msg.size()))
                return false;
            size_t body = (msg[4] << 8) | msg[5];
            msg.resize(DBCOM_HEADER_LEN + body);
            if (body && !read_exact(fd, msg.data() + DBCOM_HEADER_LEN, body))
                return false;
            dbcom_request_view view;
            if (dbcom_parse_request(msg, &view) == 0) {
                req->op = view.header.op;
                req->user.assign(view.user.value.begin(), view.user.value.end());
                req->data.append(view.data.begin(), view.data.end());
            }
            bool more = msg[2] & 0x10;
            req->messages.push_back(std::move(msg));
            if (!more)
                return true;
        }
    }

    // Serves one connection. True when the server closed it on purpose.
    bool serve(int fd, int conn)
    {
        for (;;) {
            seen_request req;
            req.conn = conn;
            if (!read_request(fd, &req))
                return false;
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
                    return false;
            if (plan.close)
                return true;
        }
    }

    void run()
    {
        for (int conn = 1; wait_readable(listen_.get()); ++conn) {
            unique_fd fd(accept4(listen_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd.valid())
                return;
            {
                std::lock_guard lock(mu_);
                conns_ = conn;
            }
            bool closed_by_us = serve(fd.get(), conn);
            fd.reset();
            if (closed_by_us) {
                std::lock_guard lock(mu_);
                ++closed_;
                cv_.notify_all();
            }
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
    int conns_ = 0;
    int closed_ = 0;
};

}  // namespace cstest
