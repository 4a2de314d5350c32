#include "firmware/efi_file.h"

#include "firmware/firmware_access.h"
#include "loader/common/error_codes.h"
#include "loader/common/messages.h"
#include "loader/common/raise.h"

namespace Uefi {
namespace {

Common::Error FileError(std::uint64_t tag, std::uint32_t code, const char16_t* text) { return Common::Error(tag, code, text); }

}  // namespace

EfiFile::~EfiFile() {
    if (handle_ != nullptr) handle_->Close(handle_);
}

bool EfiFile::usable() {
    if (failed()) return false;
    if (handle_ == nullptr) {
        set_error(FileError(ERROR_TAG, Common::FILE_NOT_FOUND, Common::Messages::FILE_NOT_FOUND));
        return false;
    }
    return true;
}

void EfiFile::read(void* buffer, std::uint64_t size, std::uint64_t& got) {
    got = 0;
    if (!usable()) return;
    auto* bytes = static_cast<std::uint8_t*>(buffer);
    while (got < size) {
        std::uint64_t wanted = size - got < kLargestTransfer ? size - got : kLargestTransfer;
        UINTN delivered = wanted;
        if (EFI_ERROR(handle_->Read(handle_, &delivered, bytes + got))) {
            set_error(FileError(ERROR_TAG, Common::FILE_READ, Common::Messages::FILE_READ));
            return;
        }
        got += delivered;
        if (delivered < wanted) return;
    }
}

void EfiFile::write(const void* buffer, std::uint64_t size, std::uint64_t& written) {
    written = 0;
    if (!usable()) return;
    UINTN count = size;
    EFI_STATUS status = handle_->Write(handle_, &count, const_cast<void*>(buffer));
    written = count;
    if (EFI_ERROR(status)) set_error(FileError(ERROR_TAG, Common::FILE_WRITE, Common::Messages::FILE_WRITE));
}

void EfiFile::set_size(std::uint64_t) {
    if (!usable()) return;
    set_error(FileError(ERROR_TAG, Common::FILE_UNSUPPORTED, Common::Messages::FILE_UNSUPPORTED));
}

std::int64_t EfiFile::seek(std::int64_t position) {
    if (!usable()) return -1;
    if (position < 0 || EFI_ERROR(handle_->SetPosition(handle_, static_cast<UINT64>(position)))) {
        set_error(FileError(ERROR_TAG, Common::FILE_SEEK, Common::Messages::FILE_SEEK));
        return -1;
    }
    return position;
}

std::int64_t EfiFile::seek_relative(std::int64_t delta) {
    if (!usable()) return -1;
    UINT64 position = 0;
    if (EFI_ERROR(handle_->GetPosition(handle_, &position)) || static_cast<std::int64_t>(position) < 0) {
        set_error(FileError(ERROR_TAG, Common::FILE_SEEK, Common::Messages::FILE_SEEK));
        return -1;
    }
    return seek(static_cast<std::int64_t>(position) + delta);
}

std::int64_t EfiFile::seek_end(std::int64_t delta) {
    if (!usable()) return -1;
    UINT64 position = 0;
    if (EFI_ERROR(handle_->SetPosition(handle_, 0xFFFFFFFFFFFFFFFFull)) || EFI_ERROR(handle_->GetPosition(handle_, &position))) {
        set_error(FileError(ERROR_TAG, Common::FILE_SEEK, Common::Messages::FILE_SEEK));
        return -1;
    }
    if (delta == 0) return static_cast<std::int64_t>(position);
    return seek(static_cast<std::int64_t>(position) + delta);
}

void EfiFile::remove() {
    if (!usable()) return;
    EFI_STATUS status = handle_->Delete(handle_);
    if (EFI_ERROR(status)) {
        // The firmware closed the file all the same.
        handle_ = nullptr;
        set_error(FileError(ERROR_TAG, Common::FILE_DELETE, Common::Messages::FILE_DELETE));
        return;
    }
    handle_ = nullptr;
}

EFI_LOADED_IMAGE* GetLoadedImage() {
    void* interface = nullptr;
    EFI_GUID guid = LOADED_IMAGE_PROTOCOL;
    EFI_STATUS status = BootServices()->HandleProtocol(ImageHandle(), &guid, &interface);
    if (EFI_ERROR(status) || interface == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    return static_cast<EFI_LOADED_IMAGE*>(interface);
}

}  // namespace Uefi
