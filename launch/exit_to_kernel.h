#pragma once
// The last stretch before the kernel: the firmware's memory map in E820
// form, and the end of boot services.
#include <cstdint>

namespace Launch {

// What a conversion produced: entries written to boot_params and the node.
struct E820Node {
    std::uint8_t* address = nullptr;  // 16-byte header, then entries
    std::uint64_t capacity = 0;       // bytes
};

// The E820 type of a firmware memory descriptor.
std::uint32_t E820Type(std::uint32_t firmware_type, std::uint64_t attribute);

// Converts `map_size` bytes of descriptors, `descriptor_size` bytes apart,
// behind the entries `params` already has; entries past 128 go to `node`.
// Merges neighbours of one type that touch.
void ConvertMemoryMap(const std::uint8_t* map, std::uint64_t map_size, std::uint64_t descriptor_size, std::uint8_t* params,
                      const E820Node& node);

// Reads the memory map, converts it into `params` and leaves boot services.
// Raises while boot services are still there; returns with them gone.
void ExitToKernel(std::uint8_t* params);

}  // namespace Launch
