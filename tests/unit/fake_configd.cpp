// The unit tests' configuration daemon.
#include "fake_configd.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

bool read_all(int fd, uint8_t* buf, size_t n)
{
    size_t got = 0;
    while (got < n) {
        ssize_t r = recv(fd, buf + got, n - got, 0);
        if (r <= 0)
            return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

uint16_t be16(const uint8_t* p)
{
    return static_cast<uint16_t>(p[0] << 8 | p[1]);
}

std::string unescape_key(const std::string& s)
{
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 1 < s.size() && s[i + 1] == ' ')
            ++i;
        out += s[i];
    }
    return out;
}

}  // namespace

fake_configd::fake_configd(const char* path) : path_(path)
{
    unlink(path);
    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", path);
    if (bind(listen_fd_, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(listen_fd_, 8) != 0)
        ADD_FAILURE() << "fake configd cannot listen on " << path;
    thread_ = std::thread([this] { serve(); });
}

fake_configd::~fake_configd()
{
    stop_ = true;
    thread_.join();
    close(listen_fd_);
    unlink(path_.c_str());
}

void fake_configd::set(const std::string& key, const std::string& value)
{
    std::lock_guard<std::mutex> hold(lock_);
    table_[key] = value;
}

void fake_configd::serve()
{
    std::vector<int> clients;
    while (!stop_) {
        std::vector<pollfd> fds{{listen_fd_, POLLIN, 0}};
        for (int c : clients)
            fds.push_back({c, POLLIN, 0});
        if (poll(fds.data(), fds.size(), 50) <= 0)
            continue;
        if (fds[0].revents & POLLIN) {
            int c = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0)
                clients.push_back(c);
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            if (fds[i].revents && !answer(fds[i].fd)) {
                close(fds[i].fd);
                clients.erase(std::find(clients.begin(), clients.end(), fds[i].fd));
            }
        }
    }
    for (int c : clients)
        close(c);
}

// Reads one request and sends one answer line. False when the peer is gone.
bool fake_configd::answer(int fd)
{
    uint8_t head[12];
    if (!read_all(fd, head, sizeof head))
        return false;
    std::vector<uint8_t> body(be16(head + 4));
    if (!read_all(fd, body.data(), body.size()) || body.size() < 8)
        return false;
    size_t pos = 4 + be16(body.data() + 2);  // user item
    if (pos + 4 > body.size())
        return false;
    pos += 4 + be16(body.data() + pos + 2);  // address item
    std::string data(body.begin() + static_cast<long>(std::min(pos, body.size())), body.end());
    std::string escaped = data.substr(0, data.find('\n'));
    ++requests_;

    std::string value;
    {
        std::lock_guard<std::mutex> hold(lock_);
        auto it = table_.find(unescape_key(escaped));
        if (it != table_.end())
            value = it->second;
    }
    std::string line = escaped + (value.empty() ? "" : " " + value) + "\n";
    uint8_t reply[12] = {2, head[1], 0, 0, static_cast<uint8_t>(line.size() >> 8), static_cast<uint8_t>(line.size()),
                         0, 0, 0xA5, 0xA5, 0xA5, 0xA5};
    std::string out(reinterpret_cast<char*>(reply), sizeof reply);
    out += line;
    return send(fd, out.data(), out.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(out.size());
}
