// configd's answers: the responses of one get transaction, taken in as the
// client takes them off its socket, then the answer's text lines.
//
// Input: the stream of messages as configd would send them.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "configstore/dbcom_msg.h"
#include "fuzz_support.h"

namespace {

constexpr int max_messages = 64;
constexpr int max_lines = 256;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::span<const uint8_t> in(data, size);
    std::optional<std::string> result;
    std::optional<std::string> error;
    bool failed = false;
    size_t pos = 0;
    for (int n = 0; n < max_messages && in.size() - pos >= DBCOM_HEADER_LEN; ++n) {
        size_t body = static_cast<size_t>(in[pos + 4]) << 8 | in[pos + 5];
        size_t len = std::min(DBCOM_HEADER_LEN + body, in.size() - pos);
        std::span<const uint8_t> msg = in.subspan(pos, len);
        bool more = dbcom_take_response(msg, DBCOM_OP_GET, &result, &error, &failed);
        pos += len;
        if (!more)
            break;
    }
    if (result) {
        std::optional<std::string> value;
        dbcom_line_value(&*result, &value);
        std::string text = *result;
        for (int n = 0; n < max_lines; ++n) {
            std::optional<std::string> k;
            std::optional<std::string_view> rest;
            if (dbcom_parse_line(&text, &k, &value, &rest) != 0 || !rest)
                break;
            fuzz::check(rest->size() < text.size(), "answer line parse made no progress");
            text = std::string(*rest);
        }
    }
    return 0;
}
