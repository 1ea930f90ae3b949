// A small configuration daemon for unit tests: serves gets on
// /tmp/confd_get from a key/value table, on a thread of its own.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "configstore/scripted_server.h"

class fake_configd {
  public:
    fake_configd();

    // Sets the value answered for key; an empty text answers the key alone.
    void set(const std::string& key, const std::string& value);
    int requests() { return static_cast<int>(server_.requests().size()); }

  private:
    cstest::reply_plan answer(const cstest::seen_request& req);

    std::mutex lock_;
    std::map<std::string, std::string> table_;
    cstest::scripted_server server_;  // last, so that it stops before the table goes
};
