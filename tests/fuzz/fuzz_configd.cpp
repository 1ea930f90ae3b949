// configd's answers: the responses of one get transaction, taken in as the
// client takes them off its socket, then the answer's text lines; and the
// request decoder on the same bytes.
//
// Input: byte 0 picks the key and value of a round-trip check (see below),
// the rest is the stream of messages as configd would send them.
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

// A key and value without the bytes the line format gives a meaning to come
// back from escaping, a blank and a newline as they went in.
void check_round_trip(const std::string& key, const std::string& value)
{
    std::string line;
    dbcom_escape_spaces(key.c_str(), &line);
    line += ' ' + value + '\n';
    std::optional<std::string> k;
    std::optional<std::string> v;
    std::optional<std::string_view> rest;
    fuzz::check(dbcom_parse_line(&line, &k, &v, &rest) == 0, "answer line refused");
    fuzz::check(k && *k == key, "key changed by escaping and parsing");
    fuzz::check(v && *v == value, "value changed by parsing");
    fuzz::check(!rest, "text left behind a single line");
}

std::string plain_text(std::span<const uint8_t> bytes, bool blanks)
{
    std::string out;
    for (uint8_t c : bytes)
        if (c != '\\' && c != '\n' && c != '\0' && (blanks || c != ' '))
            out += static_cast<char>(c);
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    std::span<const uint8_t> in(data + 1, size - 1);

    std::optional<std::string> result;
    std::optional<std::string> error;
    bool failed = false;
    size_t pos = 0;
    for (int n = 0; n < max_messages && in.size() - pos >= DBCOM_HEADER_LEN; ++n) {
        size_t body = static_cast<size_t>(in[pos + 4]) << 8 | in[pos + 5];
        size_t len = std::min(DBCOM_HEADER_LEN + body, in.size() - pos);
        std::span<const uint8_t> msg = in.subspan(pos, len);
        dbcom_request_view view;
        if (dbcom_parse_request(msg, &view) == 0)
            fuzz::check(view.data.size() <= msg.size(), "request data outside the message");
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
    // The round trip: key and value cut from the input at byte 0's offset.
    size_t cut = in.empty() ? 0 : data[0] % (in.size() + 1);
    std::string key = plain_text(in.first(cut), true);
    std::string value = plain_text(in.subspan(cut), true);
    if (!key.empty() && !value.empty())
        check_round_trip(key, value);
    return 0;
}
