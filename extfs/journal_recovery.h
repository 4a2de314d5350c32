#pragma once
// A volume whose journal still needs replaying can only be read through a
// device that shows it with the journal applied. The driver has no replay
// of its own; it asks the volume-processing layer for such a device, and
// that layer serves no file-system type, so the request always ends in
// FILE_CORRUPT with the layer's refusal as its cause.
#include <cstdint>

#include "fsdriver/file_system_driver.h"

namespace extfs {

// The type numbers of ext3 and ext4, the only ones with a journal.
constexpr std::uint32_t kJournaledTypes = 0x30;

// Asks for a device with the journal applied to `driver`'s volume, among
// the file-system types of `type_mask`. Raises FILE_CORRUPT when none can
// be had; `device` of the driver then stays as it was.
void InstallRecoveryDevice(FileSystemDriver& driver, std::uint32_t type_mask);

}  // namespace extfs
