#pragma once
// A position in a firmware value: the next byte and how many are left. The
// readers never step past the end they were given; a read that would fails
// and leaves the cursor where it stood.
#include <cstdint>
#include <string>

#include "loader/common/byte_order.h"

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

    // A little-endian number of sizeof(T) bytes.
    template <typename T>
    bool Read(T& value) {
        static_assert(sizeof(T) <= 8, "numbers of up to 64 bits");
        if (!Has(static_cast<std::int32_t>(sizeof(T)))) return false;
        value = static_cast<T>(Common::LoadLittle<std::uint64_t, sizeof(T)>(next));
        next += sizeof(T);
        left -= static_cast<std::int32_t>(sizeof(T));
        return true;
    }

    // A 16-bit string up to and including its terminator, which must lie
    // inside the value.
    bool ReadString16(std::u16string& text) {
        std::u16string read;
        for (std::int32_t at = 0; at + 2 <= left; at += 2) {
            auto c = static_cast<char16_t>(Common::LoadLE16(next + at));
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
