#include "ntfs/run_list.h"

#include "loader/common/raise.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kWidestNumber = 5;

// The bytes the encoder gives a number whose tested value is `tested`.
std::uint32_t EncodedWidth(std::uint32_t tested) {
    if (tested <= 0x7F) return 1;
    if (tested <= 0x7FFF) return 2;
    if (tested <= 0x7FFFFF) return 3;
    return (tested & 0x80000000u) == 0 ? 4 : 5;
}

// The width the encoder gives `value` written against `base`, both taken
// as 32-bit values: a negative difference is tested by its complement.
std::uint32_t EncodedWidth(std::uint64_t value, std::uint64_t base) {
    const auto v = static_cast<std::uint32_t>(value);
    const auto b = static_cast<std::uint32_t>(base);
    const std::uint32_t difference = v - b;
    return EncodedWidth(v < b ? ~difference : difference);
}

// A number of `width` little-endian bytes added to `base`: widths 1 to 4
// are signed; width 5 is four bytes and a sign byte of 0x00 or 0xFF.
std::uint64_t ReadNumber(const unsigned char* bytes, std::uint32_t width, std::uint64_t base) {
    if (width == 0 || width > kWidestNumber) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::int64_t value = 0;
    if (width == kWidestNumber) {
        std::uint64_t low = std::uint64_t(bytes[0]) | std::uint64_t(bytes[1]) << 8 | std::uint64_t(bytes[2]) << 16 |
                            std::uint64_t(bytes[3]) << 24;
        if (bytes[4] == 0x00) {
            value = static_cast<std::int64_t>(low);
        } else if (bytes[4] == 0xFF) {
            value = static_cast<std::int64_t>(low) - (std::int64_t(1) << 32);
        } else {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    } else {
        std::uint64_t raw = 0;
        for (std::uint32_t i = 0; i < width; ++i) raw |= std::uint64_t(bytes[i]) << (8 * i);
        const std::uint32_t bits = 8 * width;
        if ((raw >> (bits - 1)) != 0) raw |= ~std::uint64_t(0) << bits;
        value = static_cast<std::int64_t>(raw);
    }
    if (value < 0) {
        const std::uint64_t magnitude = static_cast<std::uint64_t>(-value);
        if (magnitude > base) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        return base - magnitude;
    }
    const auto positive = static_cast<std::uint64_t>(value);
    if (positive > ~std::uint64_t(0) - base) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return base + positive;
}

}  // namespace

RunList RunList::Decode(const unsigned char* bytes, std::uint32_t available, std::uint64_t lowest,
                        std::uint64_t highest, std::uint64_t clusters) {
    RunList list;
    std::uint64_t previous = 0;
    std::uint64_t next_vcn = lowest;
    std::uint32_t consumed = 0;
    while (consumed < available && bytes[consumed] != 0) {
        const std::uint32_t offset_width = bytes[consumed] >> 4;
        const std::uint32_t length_width = bytes[consumed] & 15;
        if (length_width == 0 || length_width > kWidestNumber || offset_width > kWidestNumber ||
            1 + length_width + offset_width > available - consumed) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        const unsigned char* at = bytes + consumed + 1;
        const std::uint64_t length = ReadNumber(at, length_width, 0);
        if (length > 0xFFFFFFFFu) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        RunEntry entry{RunEntry::kSparse, next_vcn, static_cast<std::uint32_t>(length)};
        std::uint32_t step = 1 + EncodedWidth(length, 0);
        if (offset_width != 0) {
            entry.cluster = ReadNumber(at + length_width, offset_width, previous);
            if (entry.cluster > clusters || length > clusters - entry.cluster) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            }
            step += EncodedWidth(entry.cluster, previous);
            previous = entry.cluster;
        }
        if (length > ~std::uint64_t(0) - next_vcn) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        next_vcn += length;
        list.entries_.push_back(entry);
        // A list written wider than needed loses its step here, and its
        // next header is read from the middle of a number.
        if (step > available - consumed) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        consumed += step;
    }
    if (consumed + 1 > available || bytes[consumed] != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (next_vcn - 1 != highest) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return list;
}

std::size_t RunList::find(std::uint64_t vcn) const {
    if (entries_.empty() || vcn < entries_.front().vcn || vcn >= entries_.back().end()) return entries_.size();
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (vcn >= entries_[i].vcn && vcn < entries_[i].end()) return i;
    }
    return entries_.size();
}

}  // namespace ntfs
