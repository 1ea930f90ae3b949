// The board file: the key/value look-up that reads /etc/board, and the
// product match the radio type comes from.
//
// Input: byte 0 picks the delimiter (bits 0-1) and the size of the value
// buffer (bits 2-6: 0..31; bit 7: no buffer, the integer form), the rest is
// the file.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "board/roam_lib.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 1)
        return 0;
    static constexpr char delims[4] = {'=', ' ', ':', '\t'};
    const char delim = delims[data[0] & 3];
    const auto* text = reinterpret_cast<const char*>(data + 1);
    if (data[0] & 0x80) {
        parse_key_value(text, size - 1, "/etc/board", "ProductID", delim, nullptr, 0);
        return 0;
    }
    // A buffer of exactly the size the call is told, so a byte written past
    // it is caught.
    const size_t out_size = (data[0] >> 2) & 0x1F;
    std::unique_ptr<char[]> out(new char[out_size + 1]);
    std::memset(out.get(), 'x', out_size);
    if (out_size > 0)
        out[0] = '\0';
    out[out_size] = '\0';  // beyond what the call may touch; still the guard's
    fuzz::check(parse_key_value(text, size - 1, "/etc/board", "ProductID", delim, out.get(), out_size) == 0,
                "look-up failed on a readable file");
    fuzz::check(out_size == 0 || std::strlen(out.get()) < out_size, "value not terminated within its buffer");
    fuzz::check(out[out_size] == '\0', "byte written past the value buffer");
    if (out_size == 12)
        match_product(out.get());
    return 0;
}
