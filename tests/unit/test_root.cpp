// The fixed paths of the unit tests' build of the libraries: registered by
// src/base/paths.h, each in a buffer of its own, and moved under a private
// root when the test run cannot have a mount namespace of its own.
#include <array>
#include <cstdio>
#include <deque>
#include <string>

#include "base/paths.h"
#include "test_util.h"

namespace {

struct moved_path {
    const char* fixed;
    std::array<char, 256> text;
};

// Function-local statics: the paths register themselves while the
// libraries' globals are initialised, in no fixed order.
std::deque<moved_path>& registry()
{
    static std::deque<moved_path> r;  // a deque keeps every element where it is
    return r;
}

std::string& root()
{
    static std::string r;
    return r;
}

bool place(moved_path& p)
{
    int n = snprintf(p.text.data(), p.text.size(), "%s%s", root().c_str(), p.fixed);
    return n >= 0 && static_cast<size_t>(n) < p.text.size();
}

}  // namespace

const char* paths::under_test_root(const char* fixed)
{
    moved_path& p = registry().emplace_back();
    p.fixed = fixed;
    place(p);
    return p.text.data();
}

namespace testutil {

bool set_test_root(const std::string& dir)
{
    root() = dir;
    bool fits = true;
    for (moved_path& p : registry())
        fits = place(p) && fits;
    return fits;
}

const std::string& test_root()
{
    return root();
}

std::string at(const std::string& fixed)
{
    return root() + fixed;
}

}  // namespace testutil
