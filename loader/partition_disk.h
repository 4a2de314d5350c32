#pragma once
// Finding a GPT partition among the firmware's block devices by its unique
// partition GUID, and opening a device of the enumeration by its position.
#include <cstdint>
#include <memory>

#include "firmware/simple_disk.h"
#include "loader/common/error.h"

namespace EfiLoader {

// `guid`: 16 bytes in the firmware's GUID layout, as a GPT entry holds them.
Common::Error FindPartitionDisk(const std::uint8_t guid[16], std::unique_ptr<Fdisk::SimpleDisk>& disk);

// `index` counts from 1 in the list of partitions and whole media.
Common::Error OpenDiskByIndex(std::uint32_t index, std::unique_ptr<Fdisk::SimpleDisk>& disk);

}  // namespace EfiLoader
