#include "ntfs/fixups.h"

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_records.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kStride = 512;

std::uint16_t WordAt(const unsigned char* bytes, std::uint32_t offset) {
    return static_cast<std::uint16_t>(bytes[offset] | (bytes[offset + 1] << 8));
}

void PutWord(unsigned char* bytes, std::uint32_t offset, std::uint16_t value) {
    bytes[offset] = static_cast<unsigned char>(value & 0xFF);
    bytes[offset + 1] = static_cast<unsigned char>(value >> 8);
}

// The array's length, after checking that it has one word per stride and
// lies in the first stride, in front of the first tail.
std::uint32_t CheckedCount(const unsigned char* block, std::uint32_t size, std::uint32_t minimum_offset) {
    const auto* header = reinterpret_cast<const MultiSectorHeader*>(block);
    const std::uint32_t strides = size / kStride;
    const std::uint32_t count = header->usa_count();
    const std::uint32_t offset = header->usa_ofs();
    if (size < kStride || count != strides + 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (offset < minimum_offset || offset > (256 - (strides + 2)) * 2) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return count;
}

}  // namespace

void ApplyWriteFixups(unsigned char* block, std::uint32_t size, std::uint32_t minimum_offset) {
    const std::uint32_t count = CheckedCount(block, size, minimum_offset);
    const std::uint32_t offset = reinterpret_cast<const MultiSectorHeader*>(block)->usa_ofs();
    // A fresh number per write tells a torn write from a whole one; 0 is
    // never used, a reader takes it for an unprotected block.
    std::uint16_t number = static_cast<std::uint16_t>(WordAt(block, offset) + 1);
    if (number == 0) number = 1;
    PutWord(block, offset, number);
    for (std::uint32_t i = 1; i < count; ++i) {
        const std::uint32_t tail = (i - 1) * kStride + kStride - 2;
        PutWord(block, offset + 2 * i, WordAt(block, tail));
        PutWord(block, tail, number);
    }
}

void ApplyReadFixups(unsigned char* block, std::uint32_t size, std::uint32_t minimum_offset) {
    const std::uint32_t count = CheckedCount(block, size, minimum_offset);
    const std::uint32_t offset = reinterpret_cast<const MultiSectorHeader*>(block)->usa_ofs();
    const std::uint16_t number = WordAt(block, offset);
    if (number == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    for (std::uint32_t i = 1; i < count; ++i) {
        const std::uint32_t tail = (i - 1) * kStride + kStride - 2;
        if (WordAt(block, tail) != number) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        block[tail] = block[offset + 2 * i];
        block[tail + 1] = block[offset + 2 * i + 1];
    }
}

}  // namespace ntfs
