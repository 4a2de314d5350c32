#include "launch/page_buffer.h"

#include <efi.h>

#include "firmware/firmware_access.h"
#include "loader/common/raise.h"

namespace Launch {

PageBuffer::PageBuffer(std::uint64_t size, std::uint64_t limit) {
    std::uint64_t pages = size / 4096 + (size % 4096 != 0 ? 1 : 0);
    if (pages > 0xFFFFFFFFull) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    EFI_PHYSICAL_ADDRESS address = limit;
    if (EFI_ERROR(Uefi::BootServices()->AllocatePages(AllocateMaxAddress, EfiLoaderData, pages, &address))) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
    address_ = address;
    pages_ = static_cast<std::uint32_t>(pages);
}

PageBuffer::~PageBuffer() {
    if (address_ != 0) Uefi::BootServices()->FreePages(address_, pages_);
}

void PageBuffer::swap(PageBuffer& other) {
    std::uint64_t address = address_;
    std::uint32_t pages = pages_;
    address_ = other.address_;
    pages_ = other.pages_;
    other.address_ = address;
    other.pages_ = pages;
}

}  // namespace Launch
