#include "loader/partition_disk.h"

#include <efi.h>

#include <cstring>

#include "firmware/block_device.h"
#include "firmware/block_enumeration.h"
#include "firmware/device_path.h"
#include "firmware/firmware_access.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace EfiLoader {
namespace {

constexpr std::size_t kSignatureOffset = 24;
constexpr std::size_t kFormatOffset = 40;

// Whether a node of the handle's device path is a GPT hard drive node with
// this signature. An MBR node never matches, whatever its bytes.
bool PathNamesPartition(EFI_HANDLE handle, const std::uint8_t guid[16]) {
    EFI_GUID path_guid = DEVICE_PATH_PROTOCOL;
    void* interface = nullptr;
    if (Uefi::BootServices()->HandleProtocol(handle, &path_guid, &interface) != EFI_SUCCESS || interface == nullptr) {
        return false;
    }
    bool found = false;
    Fdisk::WalkDevicePath(interface, [&](const std::uint8_t* node, std::uint16_t length) {
        found = node[0] == Uefi::kMediaDevicePath && node[1] == Uefi::kHardDriveSubtype &&
                length >= Uefi::kHardDriveNodeSize && node[kFormatOffset] == Uefi::kGptPartitionFormat &&
                std::memcmp(node + kSignatureOffset, guid, 16) == 0;
        return found;
    });
    return found;
}

}  // namespace

Common::Error FindPartitionDisk(const std::uint8_t guid[16], std::unique_ptr<Fdisk::SimpleDisk>& disk) {
    Fdisk::BlockDeviceList list;
    Fdisk::EnumerateBlockDevices(list, Fdisk::kPartitions);
    if (list.status != 0) return Uefi::DiskStatusError(ERROR_TAG, list.status);
    for (std::size_t position = 0; position < list.handles.size(); ++position) {
        if (PathNamesPartition(list.handles[position], guid)) {
            return OpenDiskByIndex(static_cast<std::uint32_t>(position + 1), disk);
        }
    }
    return Common::Error(ERROR_TAG, Common::DISK_NOT_FOUND, Common::Messages::DISK_NOT_FOUND);
}

Common::Error OpenDiskByIndex(std::uint32_t index, std::unique_ptr<Fdisk::SimpleDisk>& disk) {
    // Enumerated afresh: a handle kept from an earlier walk might be gone.
    Fdisk::BlockDeviceList list;
    Fdisk::EnumerateBlockDevices(list, Fdisk::kPartitions);
    if (list.status != 0) return Uefi::DiskStatusError(ERROR_TAG, list.status);
    if (index == 0 || index > list.handles.size()) {
        return Common::Error(ERROR_TAG, Common::DISK_INDEX_RANGE, Common::Messages::DISK_INDEX_RANGE);
    }
    Common::Error cause;
    auto device = std::make_unique<Fdisk::BlockDevice>(list.handles[index - 1], cause);
    if (cause.Failed()) {
        device.reset();
        disk.reset();
        Common::Error error(ERROR_TAG, Common::DISK_OPEN, Common::Messages::DISK_OPEN);
        error.SetNext(cause);
        return error;
    }
    disk = std::move(device);
    return Common::Success;
}

}  // namespace EfiLoader
