// A small configuration daemon for unit tests: serves gets on
// /tmp/confd_get from a key/value table, on a thread of its own. Written from
// the wire format, independently of the client, so that a mistake on one side
// shows.
#pragma once

#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <thread>

class fake_configd {
public:
    explicit fake_configd(const char* path = "/tmp/confd_get");
    ~fake_configd();

    // Sets (or with an empty text, clears) the value answered for key.
    void set(const std::string& key, const std::string& value);
    int requests() const { return requests_.load(); }

private:
    void serve();
    bool answer(int fd);

    std::string path_;
    int listen_fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<int> requests_{0};
    std::mutex lock_;
    std::map<std::string, std::string> table_;
    std::thread thread_;
};
