#include "extfs/descriptor_checksum.h"

#include <cstddef>

#include "extfs/ext_records.h"
#include "loader/common/byte_order.h"

namespace extfs {

namespace {

// The byte-at-a-time table of the reflected polynomial, made by the compiler.
struct Crc16Table {
    std::uint16_t entry[256];
    constexpr Crc16Table() : entry() {
        for (std::uint32_t byte = 0; byte < 256; ++byte) {
            std::uint16_t crc = static_cast<std::uint16_t>(byte);
            for (int bit = 0; bit < 8; ++bit) {
                std::uint16_t shifted = static_cast<std::uint16_t>(crc >> 1);
                crc = (crc & 1) ? static_cast<std::uint16_t>(shifted ^ 0xA001) : shifted;
            }
            entry[byte] = crc;
        }
    }
};

constexpr Crc16Table kTable;
// The checksum's own two bytes are never fed in: the part before them and
// the long form's part behind them are.
constexpr std::uint32_t kChecksumOffset = offsetof(GroupDescriptor, bg_checksum_);
constexpr std::uint32_t kWideHalf = GroupDescriptor::kNarrowSize;

}  // namespace

std::uint16_t Crc16(std::uint16_t crc, const unsigned char* bytes, std::uint32_t length) {
    for (std::uint32_t i = 0; i < length; ++i) {
        crc = static_cast<std::uint16_t>((crc >> 8) ^ kTable.entry[(crc ^ bytes[i]) & 0xFF]);
    }
    return crc;
}

std::uint16_t DescriptorChecksum(const unsigned char* uuid, std::uint32_t group, const unsigned char* descriptor,
                                 std::uint32_t size, bool wide) {
    unsigned char group_bytes[4];
    Common::StoreLE32(group_bytes, group);
    std::uint16_t crc = Crc16(0xFFFF, uuid, 16);
    crc = Crc16(crc, group_bytes, 4);
    crc = Crc16(crc, descriptor, kChecksumOffset);
    if (wide && size > kWideHalf) crc = Crc16(crc, descriptor + kWideHalf, size - kWideHalf);
    return crc;
}

}  // namespace extfs
