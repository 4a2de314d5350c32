#include "hfsplus/bitset.h"

#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kUnknown = 0xFFFFFFFFu;

unsigned char BitMask(std::uint32_t index) { return static_cast<unsigned char>(0x80u >> (index % 8)); }

}  // namespace

unsigned CountBits(unsigned char byte) {
    unsigned count = 0;
    for (; byte != 0; byte = static_cast<unsigned char>(byte & (byte - 1))) ++count;
    return count;
}

Bitset::Bitset(std::uint32_t bit_total)
    : bytes((std::uint64_t(bit_total) + 7) / 8, 0),
      bytes_count(static_cast<std::uint32_t>((std::uint64_t(bit_total) + 7) / 8)),
      bits(bit_total) {}

bool Bitset::GetBit(std::uint32_t index) const {
    if (index >= bits) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return (bytes[index / 8] & BitMask(index)) != 0;
}

void Bitset::SetBit(std::uint32_t index, bool value) {
    if (GetBit(index) == value) return;
    bytes[index / 8] = static_cast<unsigned char>(bytes[index / 8] ^ BitMask(index));
    if (value) {
        ++set_bits;
        if (index == first_clear) first_clear = kUnknown;
    } else {
        --set_bits;
        if (first_clear == kUnknown || index < first_clear) first_clear = index;
    }
}

void Bitset::CheckArea(const BlockArea& area) const {
    if (area.first >= bits || area.last >= bits) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

unsigned char Bitset::MaskIn(std::uint32_t byte, const BlockArea& area) const {
    unsigned mask = 0;
    for (std::uint32_t bit = 0; bit < 8; ++bit) {
        const std::uint64_t index = std::uint64_t(byte) * 8 + bit;
        if (index < bits && index >= area.first && index <= area.last) mask |= 0x80u >> bit;
    }
    return static_cast<unsigned char>(mask);
}

void Bitset::SetRange(const BlockArea& area, bool value) {
    if (area.IsEmpty()) return;
    CheckArea(area);
    for (std::uint32_t byte = area.first / 8; byte <= area.last / 8; ++byte) {
        const unsigned char mask = MaskIn(byte, area);
        const unsigned char before = bytes[byte];
        bytes[byte] = static_cast<unsigned char>(value ? before | mask : before & ~mask);
        set_bits += CountBits(bytes[byte]);
        set_bits -= CountBits(before);
    }
    if (value) {
        if (area.Contains(first_clear)) first_clear = kUnknown;
    } else if (first_clear == kUnknown || area.first < first_clear) {
        first_clear = area.first;
    }
}

std::uint32_t Bitset::FindFirstClear() {
    if (set_bits == bits) return kUnknown;
    if (first_clear != kUnknown && first_clear < bits && !GetBit(first_clear)) return first_clear;
    for (std::uint32_t byte = 0; byte < bytes_count; ++byte) {
        if (bytes[byte] == 0xFF) continue;
        for (std::uint32_t bit = 0; bit < 8; ++bit) {
            const std::uint64_t index = std::uint64_t(byte) * 8 + bit;
            if (index >= bits) return kUnknown;
            if ((bytes[byte] & (0x80u >> bit)) == 0) return first_clear = static_cast<std::uint32_t>(index);
        }
    }
    return kUnknown;
}

BlockArea Bitset::FindFirstClearRun() {
    const std::uint32_t first = FindFirstClear();
    if (first == kUnknown) return BlockArea();
    std::uint32_t last = first;
    while (last + 1 < bits && !GetBit(last + 1)) ++last;
    return BlockArea(first, last);
}

}  // namespace hfsplus
