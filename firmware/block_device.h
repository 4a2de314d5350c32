#pragma once
// The firmware's Block I/O protocol of one handle as a SimpleDisk, and the
// small record through which a protocol is opened for a moment.
#include <efi.h>

#include <cstdint>

#include "firmware/simple_disk.h"
#include "loader/common/error.h"

namespace Uefi {

// One protocol on one handle, opened by the loader's image for as long as
// it is needed, with the firmware's answer to the last call.
class OpenProtocolRecord {
public:
    OpenProtocolRecord(const EFI_GUID& guid, EFI_HANDLE handle) : guid_(guid), handle_(handle) {}

    // The interface, or null when the firmware refused (see Status()).
    void* Open();
    void Close();
    EFI_STATUS Status() const { return status_; }
    EFI_HANDLE Handle() const { return handle_; }

private:
    EFI_GUID guid_;
    EFI_HANDLE handle_;
    EFI_STATUS status_ = EFI_SUCCESS;
};

// The Block I/O protocol's GUID, as a value the firmware may be given.
EFI_GUID BlockIoGuid();

// The error of a firmware status in the block device facility.
Common::Error DiskStatusError(std::uint64_t tag, EFI_STATUS status);

}  // namespace Uefi

namespace Fdisk {

class BlockDevice : public SimpleDisk {
public:
    // Opens the protocol; never throws. On failure `error` tells why, and the
    // object stays without a protocol until it is destroyed.
    BlockDevice(EFI_HANDLE handle, Common::Error& error);
    ~BlockDevice() override;

    Common::Error Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer, std::uint64_t count) override;
    std::uint32_t Extensions() override { return 0; }

private:
    EFI_BLOCK_IO_PROTOCOL* block_io = nullptr;
    Uefi::OpenProtocolRecord protocol;
};

}  // namespace Fdisk
