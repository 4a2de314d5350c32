#pragma once
// The checksum that guards each group descriptor on volumes with
// GDT_CSUM: the CRC-16 with the reflected polynomial 0xA001, seeded with
// 0xFFFF, over the volume's UUID, the group number and the descriptor
// without its own two checksum bytes.
#include <cstdint>

namespace extfs {

// Continues a CRC-16 over `length` bytes.
std::uint16_t Crc16(std::uint16_t crc, const unsigned char* bytes, std::uint32_t length);

// The checksum of group `group`'s descriptor of `size` bytes (32, or 64 and
// more with 64-bit block numbers).
std::uint16_t DescriptorChecksum(const unsigned char* uuid, std::uint32_t group, const unsigned char* descriptor,
                                 std::uint32_t size, bool wide);

}  // namespace extfs
