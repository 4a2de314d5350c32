#include "firmware/block_device.h"

#include "firmware/firmware_access.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"

namespace Uefi {

void* OpenProtocolRecord::Open() {
    void* interface = nullptr;
    status_ = BootServices()->OpenProtocol(handle_, &guid_, &interface, ImageHandle(), nullptr,
                                           EFI_OPEN_PROTOCOL_BY_HANDLE_PROTOCOL);
    return status_ == EFI_SUCCESS ? interface : nullptr;
}

void OpenProtocolRecord::Close() { status_ = BootServices()->CloseProtocol(handle_, &guid_, ImageHandle(), nullptr); }

EFI_GUID BlockIoGuid() {
    EFI_GUID guid = EFI_BLOCK_IO_PROTOCOL_GUID;
    return guid;
}

Common::Error DiskStatusError(std::uint64_t tag, EFI_STATUS status) {
    return Common::Error(tag, Common::DiskStatusToCode(status), Common::DiskStatusToMessage(status));
}

}  // namespace Uefi

namespace Fdisk {

BlockDevice::BlockDevice(EFI_HANDLE handle, Common::Error& error) : protocol(Uefi::BlockIoGuid(), handle) {
    block_io = static_cast<EFI_BLOCK_IO_PROTOCOL*>(protocol.Open());
    if (block_io == nullptr) {
        error = Uefi::DiskStatusError(ERROR_TAG, protocol.Status());
        return;
    }
    // The shape is taken once: a medium changed later keeps what it said here,
    // while every transfer asks the protocol afresh.
    const EFI_BLOCK_IO_MEDIA* media = block_io->Media;
    if (media != nullptr) {
        last_sector = media->LastBlock;
        sector_size = media->BlockSize;
        geometry.cylinders = (media->LastBlock / 16) / 63;
    }
    error = Common::Success;
}

BlockDevice::~BlockDevice() {
    if (block_io != nullptr) protocol.Close();
}

Common::Error BlockDevice::Transfer(std::uint32_t operation, std::uint64_t sector, void* buffer, std::uint64_t count) {
    if (operation < kTransferRead || operation > kTransferNoAction6) {
        return Common::Error(ERROR_TAG, Common::DISK_BAD_OPERATION, Common::Messages::DISK_BAD_OPERATION);
    }
    if (operation == kTransferNoAction5 || operation == kTransferNoAction6) return Common::Success;
    if (block_io == nullptr) {
        return Uefi::DiskStatusError(ERROR_TAG, protocol.Status() != EFI_SUCCESS ? protocol.Status() : EFI_NOT_READY);
    }
    EFI_STATUS status = EFI_SUCCESS;
    if (operation == kTransferFlush) {
        status = block_io->FlushBlocks(block_io);
    } else {
        const EFI_BLOCK_IO_MEDIA* media = block_io->Media;
        if (media == nullptr) return Uefi::DiskStatusError(ERROR_TAG, EFI_NO_MEDIA);
        // A byte count that does not fit the firmware's UINTN is a request
        // no disk can serve.
        std::uint64_t block_size = media->BlockSize;
        if (block_size != 0 && count > UINT64_MAX / block_size) {
            return Uefi::DiskStatusError(ERROR_TAG, EFI_BAD_BUFFER_SIZE);
        }
        UINTN bytes = block_size * count;
        if (operation == kTransferRead) {
            status = block_io->ReadBlocks(block_io, media->MediaId, sector, bytes, buffer);
        } else {
            status = block_io->WriteBlocks(block_io, media->MediaId, sector, bytes, buffer);
        }
    }
    // Warnings count as failures: a transfer either did all it was asked or not.
    if (status != EFI_SUCCESS) return Uefi::DiskStatusError(ERROR_TAG, status);
    return Common::Success;
}

}  // namespace Fdisk
