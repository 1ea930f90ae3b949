// The unit tests' side of the fault injector: arming in-process.
#include <cstring>
#include <stdexcept>

#include "dorvfault.h"
#include "fault_core.h"

namespace dorvfault {

namespace {

constexpr int test_owner = 1;

}  // namespace

handle arm(const std::string& text, bool optional)
{
    handle h;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find_first_of(";\n", start);
        if (end == std::string::npos)
            end = text.size();
        std::string one = text.substr(start, end - start);
        start = end + 1;
        if (one.find_first_not_of(" \t") == std::string::npos)
            continue;
        core::rule r;
        char why[400];
        if (!core::parse_rule(one.c_str(), r, why, sizeof why))
            throw std::invalid_argument(why);
        h.slot = core::arm(r, test_owner, optional);
        if (h.slot < 0)
            throw std::invalid_argument("every fault rule slot is armed: \"" + one + "\"");
    }
    if (h.slot < 0)
        throw std::invalid_argument("bad fault rule \"" + text + "\": empty");
    return h;
}

unsigned fired(handle h)
{
    core::slot_state st;
    return core::slot_info(h.slot, st) ? st.fired : 0;
}

unsigned seen(handle h)
{
    core::slot_state st;
    return core::slot_info(h.slot, st) ? st.seen : 0;
}

std::string fired_path(handle h)
{
    core::slot_state st;
    return core::slot_info(h.slot, st) ? st.last_path : "";
}

void disarm(handle h)
{
    core::disarm(h.slot);
}

void reset()
{
    core::disarm_all();
    core::forget_all();
}

std::vector<std::string> unfired()
{
    std::vector<std::string> out;
    for (size_t i = 0; i < core::max_rules; ++i) {
        core::slot_state st;
        if (core::slot_info(static_cast<int>(i), st) && !st.optional && st.fired == 0)
            out.emplace_back(st.text);
    }
    return out;
}

}  // namespace dorvfault
