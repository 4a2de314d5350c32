#pragma once
// The code that takes the machine from 64-bit long mode to the kernel's
// 32-bit entry. It runs from a copy in the parameter area, so it is
// position independent and carries its own descriptor tables.
#include <cstddef>
#include <cstdint>

namespace Launch {

constexpr std::size_t kEntryStubSize = 200;

const std::uint8_t* EntryStubCode();
std::size_t EntryStubSize();

// Enters the stub copied to `stub`: never comes back. In the host world the
// platform hands the prepared machine to whoever runs the loader instead.
[[noreturn]] void JumpToKernel(std::uint64_t kernel_address, std::uint8_t* params, std::uint8_t* stub);

}  // namespace Launch
