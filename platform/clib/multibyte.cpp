// The multibyte form of the C library layer is UTF-8. 16-bit strings are
// treated as code units: a surrogate is encoded on its own, as the rest of
// the system does not pair them either.
#include <cstdint>

#include "platform/clib/clib.h"

namespace Clib {

std::string ToMultibyte(const char16_t* text, std::size_t length) {
    std::string out;
    out.reserve(length);
    for (std::size_t i = 0; i < length; ++i) {
        std::uint32_t c = text[i];
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
        } else if (c < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (c >> 6)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xE0 | (c >> 12)));
            out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
        }
    }
    return out;
}

// Bytes that do not form a sequence of one to three bytes are taken one by
// one, widened, so that output never loses a character silently.
std::u16string FromMultibyte(const char* text, std::size_t length) {
    std::u16string out;
    auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    auto continuation = [&](std::size_t i) { return i < length && (byte(i) & 0xC0) == 0x80; };
    for (std::size_t i = 0; i < length;) {
        std::uint8_t lead = byte(i);
        if (lead >= 0xC2 && lead < 0xE0 && continuation(i + 1)) {
            out.push_back(static_cast<char16_t>(((lead & 0x1F) << 6) | (byte(i + 1) & 0x3F)));
            i += 2;
        } else if (lead >= 0xE0 && lead < 0xF0 && continuation(i + 1) && continuation(i + 2) &&
                   (lead != 0xE0 || byte(i + 1) >= 0xA0)) {
            out.push_back(static_cast<char16_t>(((lead & 0x0F) << 12) | ((byte(i + 1) & 0x3F) << 6) | (byte(i + 2) & 0x3F)));
            i += 3;
        } else {
            out.push_back(lead);
            i += 1;
        }
    }
    return out;
}

}  // namespace Clib
