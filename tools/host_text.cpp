#include "tools/host_text.h"

#include <cstdint>

namespace MorvaneTool {
namespace {

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kLargest = 0x10FFFF;

bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit <= 0xDBFF; }
bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit <= 0xDFFF; }
bool IsContinuation(unsigned char byte) { return (byte & 0xC0) == 0x80; }

// The length a lead byte announces and the bits it carries; 0 for a byte
// that can't start a sequence.
std::size_t SequenceLength(unsigned char lead, char32_t& bits) {
    if (lead < 0x80) {
        bits = lead;
        return 1;
    }
    if ((lead & 0xE0) == 0xC0) {
        bits = lead & 0x1F;
        return 2;
    }
    if ((lead & 0xF0) == 0xE0) {
        bits = lead & 0x0F;
        return 3;
    }
    if ((lead & 0xF8) == 0xF0) {
        bits = lead & 0x07;
        return 4;
    }
    return 0;
}

// The smallest value each length may carry: anything below is overlong.
char32_t SmallestFor(std::size_t length) {
    static const char32_t kSmallest[] = {0, 0, 0x80, 0x800, 0x10000};
    return kSmallest[length];
}

void AppendUtf16(char32_t value, std::u16string& out) {
    if (value < 0x10000) {
        out.push_back(static_cast<char16_t>(value));
        return;
    }
    value -= 0x10000;
    out.push_back(static_cast<char16_t>(0xD800 | (value >> 10)));
    out.push_back(static_cast<char16_t>(0xDC00 | (value & 0x3FF)));
}

void AppendUtf8(char32_t value, std::string& out) {
    if (value < 0x80) {
        out.push_back(static_cast<char>(value));
    } else if (value < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (value >> 6)));
        out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
    } else if (value < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (value >> 12)));
        out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (value >> 18)));
        out.push_back(static_cast<char>(0x80 | ((value >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
    }
}

}  // namespace

bool HostTextToVolume(const std::string& utf8, std::u16string& utf16) {
    utf16.clear();
    const auto* bytes = reinterpret_cast<const unsigned char*>(utf8.data());
    std::size_t i = 0;
    while (i < utf8.size()) {
        char32_t value = 0;
        std::size_t length = SequenceLength(bytes[i], value);
        if (length == 0 || length > utf8.size() - i) return false;
        for (std::size_t k = 1; k < length; ++k) {
            if (!IsContinuation(bytes[i + k])) return false;
            value = value << 6 | (bytes[i + k] & 0x3F);
        }
        if (value < SmallestFor(length) || value > kLargest || IsHighSurrogate(value) || IsLowSurrogate(value)) {
            return false;
        }
        AppendUtf16(value, utf16);
        i += length;
    }
    return true;
}

std::string VolumeTextToHost(const std::u16string& utf16) {
    std::string out;
    for (std::size_t i = 0; i < utf16.size(); ++i) {
        char32_t unit = utf16[i];
        if (IsHighSurrogate(unit) && i + 1 < utf16.size() && IsLowSurrogate(utf16[i + 1])) {
            AppendUtf8(0x10000 + ((unit - 0xD800) << 10) + (utf16[i + 1] - 0xDC00), out);
            ++i;
        } else if (IsHighSurrogate(unit) || IsLowSurrogate(unit)) {
            AppendUtf8(kReplacement, out);
        } else {
            AppendUtf8(unit, out);
        }
    }
    return out;
}

}  // namespace MorvaneTool
