// The unit tests' configuration daemon.
#include "fake_configd.h"

#include "test_util.h"

fake_configd::fake_configd()
    : server_(testutil::at("/tmp/confd_get").c_str(),
              [this](const cstest::seen_request& req, int) { return answer(req); })
{
}

void fake_configd::set(const std::string& key, const std::string& value)
{
    std::lock_guard<std::mutex> hold(lock_);
    table_[key] = value;
}

// Answers a get's key line with the key and its value, as configd does.
cstest::reply_plan fake_configd::answer(const cstest::seen_request& req)
{
    std::string key = req.data.substr(0, req.data.find('\n'));
    std::string value;
    {
        std::lock_guard<std::mutex> hold(lock_);
        auto it = table_.find(key);
        if (it != table_.end())
            value = it->second;
    }
    return {{cstest::reply(DBCOM_OP_GET, 0, key + (value.empty() ? "" : " " + value) + "\n")}, false};
}
