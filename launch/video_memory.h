#pragma once
// Reads of framebuffer and PCI window memory by physical address. Boot
// services map memory one to one, so an address below 4 GiB is a pointer.
// The reads are volatile: this is device memory, painted by the adapter
// behind the compiler's back.
#include <cstdint>

#include "loader/common/byte_order.h"

namespace EfiLoader {

inline std::uint8_t PhysicalByte(std::uint64_t address) {
    return *reinterpret_cast<const volatile std::uint8_t*>(static_cast<std::uintptr_t>(address));
}

// Little-endian, byte by byte, so that no address needs any alignment.
inline std::uint64_t PhysicalU64(std::uint64_t address) {
    unsigned char bytes[8];
    for (unsigned i = 0; i < 8; ++i) bytes[i] = PhysicalByte(address + i);
    return Common::LoadLE64(bytes);
}

}  // namespace EfiLoader
