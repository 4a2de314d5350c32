#pragma once
// How the loader finds disks and partitions: the firmware's device handles
// walked as a tree of controllers, then filtered by the last node of each
// device path.
#include <efi.h>

#include <cstddef>
#include <cstdint>
#include <vector>

#include "firmware/device_path.h"

namespace Fdisk {

// Modes of EnumerateBlockDevices.
constexpr std::uint32_t kWholeMedia = 0;
constexpr std::uint32_t kPartitions = 1;

struct BlockDeviceList {
    std::vector<EFI_HANDLE> handles;  // in walk order; a handle may stand twice
    std::uint64_t status = 0;         // 0, or the firmware status of the failure
};

// Mode kWholeMedia keeps whole media; mode kPartitions keeps partitions and,
// beside them, the whole media too. Any other mode keeps no partition.
void EnumerateBlockDevices(BlockDeviceList& list, std::uint32_t mode);

// A path longer than this is taken for garbage rather than walked on: no
// real device path comes near it.
constexpr std::size_t kLongestDevicePath = 64 * 1024;

// Calls visit(node, length) for each node of a device path the firmware
// gave, up to its end (type 0x7F with the high bit ignored, subtype 0xFF);
// stops early when visit answers true. False when a node's Length is below
// a header or the path runs past kLongestDevicePath.
template <typename Visit>
bool WalkDevicePath(const void* path, Visit visit) {
    const auto* node = static_cast<const std::uint8_t*>(path);
    std::size_t walked = 0;
    for (;;) {
        const Uefi::DevicePathHeader& header = Uefi::NodeHeaderAt(node);
        if (Uefi::IsEndOfPath(header.Type, header.SubType)) return true;
        std::uint16_t length = header.Length.get();
        if (length < Uefi::kNodeHeaderSize) return false;
        walked += length;
        if (walked > kLongestDevicePath) return false;
        if (visit(node, length)) return true;
        node += length;
    }
}

// The last node in front of the end of a device path the firmware gave, or
// null when the path has no such node or cannot be walked.
const std::uint8_t* LastDevicePathNode(const void* path);

}  // namespace Fdisk
