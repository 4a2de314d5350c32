#pragma once
// The checks a bzImage must pass before it is placed in memory.
#include <cstdint>

#include "launch/boot_params.h"

namespace Launch {

// Raises KERNEL_CORRUPT or KERNEL_UNSUPPORTED for the first failed check of
// `header`, the setup header among the first 0x400 bytes of a file of
// `file_size` bytes.
void CheckKernelHeader(const SetupHeader& header, std::uint64_t file_size);

}  // namespace Launch
