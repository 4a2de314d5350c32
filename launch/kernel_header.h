#pragma once
// The checks a bzImage must pass before it is placed in memory.
#include <cstdint>

#include "launch/boot_params.h"

namespace Launch {

// The setup part's size: (setup_sects + 1) sectors, with 0 sectors standing
// for the historic 4.
std::uint32_t SetupSize(const ByteArea& header);

// Raises KERNEL_CORRUPT or KERNEL_UNSUPPORTED for the first failed check of
// the header in `header` (the first 0x400 bytes of a file of `file_size`).
void CheckKernelHeader(const ByteArea& header, std::uint64_t file_size);

}  // namespace Launch
