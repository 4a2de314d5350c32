#include "files/utf_conversion.h"

namespace {

bool IsContinuation(unsigned char byte) { return byte >= 0x80 && byte <= 0xBF; }

}  // namespace

std::string utf16_to_utf8(const char16_t* text, std::size_t length) {
    std::string out;
    for (std::size_t i = 0; i < length && text[i] != 0; ++i) {
        char16_t unit = text[i];
        if (unit < 0x80) {
            out.push_back(static_cast<char>(unit));
        } else if (unit < 0x800) {
            out.push_back(static_cast<char>(0xC0 | (unit >> 6)));
            out.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
        } else {
            out.push_back(static_cast<char>(0xE0 | (unit >> 12)));
            out.push_back(static_cast<char>(0x80 | ((unit >> 6) & 0x3F)));
            out.push_back(static_cast<char>(0x80 | (unit & 0x3F)));
        }
    }
    return out;
}

std::string utf16_to_utf8(const std::u16string& text) { return utf16_to_utf8(text.data(), text.size()); }

std::u16string utf8_to_utf16(const char* bytes, std::size_t length) {
    const auto* in = reinterpret_cast<const unsigned char*>(bytes);
    std::u16string out;
    std::size_t i = 0;
    while (i < length && in[i] != 0) {
        unsigned char lead = in[i];
        std::size_t left = length - i;
        if (lead < 0x80) {
            out.push_back(lead);
            i += 1;
        } else if (lead >= 0xC2 && lead <= 0xDF && left >= 2 && IsContinuation(in[i + 1])) {
            out.push_back(static_cast<char16_t>(((lead & 0x1F) << 6) | (in[i + 1] & 0x3F)));
            i += 2;
        } else if (lead >= 0xE0 && lead <= 0xEF && left >= 3 && IsContinuation(in[i + 1]) &&
                   IsContinuation(in[i + 2]) && (lead != 0xE0 || in[i + 1] >= 0xA0)) {
            out.push_back(static_cast<char16_t>(((lead & 0x0F) << 12) | ((in[i + 1] & 0x3F) << 6) | (in[i + 2] & 0x3F)));
            i += 3;
        } else {
            out.push_back(u'?');
            i += 1;
        }
    }
    return out;
}

std::u16string utf8_to_utf16(const std::string& bytes) { return utf8_to_utf16(bytes.data(), bytes.size()); }
