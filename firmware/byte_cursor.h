#pragma once
// A position in a firmware value: the next byte and how many are left. The
// readers never step past the end they were given; a read that would fails
// and leaves the cursor where it stood.
#include <cstdint>
#include <string>

namespace Uefi {

struct ByteCursor {
    const std::uint8_t* next = nullptr;
    std::int32_t left = 0;

    ByteCursor() = default;
    ByteCursor(const void* bytes, std::int32_t size)
        : next(static_cast<const std::uint8_t*>(bytes)), left(size < 0 || bytes == nullptr ? 0 : size) {}

    bool Has(std::int32_t count) const { return count >= 0 && count <= left; }

    bool Skip(std::int32_t count) {
        if (!Has(count)) return false;
        next += count;
        left -= count;
        return true;
    }

    // Little-endian unsigned value of `width` bytes (at most 8), not consumed.
    bool Peek(std::int32_t width, std::uint64_t& value) const {
        if (width > 8 || !Has(width)) return false;
        value = 0;
        for (std::int32_t i = width - 1; i >= 0; --i) value = (value << 8) | next[i];
        return true;
    }

    template <typename T>
    bool Read(T& value) {
        std::uint64_t raw;
        if (!Peek(static_cast<std::int32_t>(sizeof(T)), raw)) return false;
        value = static_cast<T>(raw);
        next += sizeof(T);
        left -= static_cast<std::int32_t>(sizeof(T));
        return true;
    }

    // A 16-bit string up to and including its terminator, which must lie
    // inside the value.
    bool ReadString16(std::u16string& text) {
        std::u16string read;
        for (std::int32_t at = 0; at + 2 <= left; at += 2) {
            char16_t c = static_cast<char16_t>(next[at] | (next[at + 1] << 8));
            if (c == 0) {
                text.swap(read);
                next += at + 2;
                left -= at + 2;
                return true;
            }
            read.push_back(c);
        }
        return false;
    }
};

}  // namespace Uefi
