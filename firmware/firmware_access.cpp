#include "firmware/firmware_access.h"

#include "firmware/image_path.h"
#include "firmware/unicode_collation.h"

namespace {
EFI_HANDLE image_handle = nullptr;
EFI_SYSTEM_TABLE* system_table = nullptr;
}  // namespace

namespace Uefi {

void InitializeFirmwareAccess(EFI_HANDLE image, EFI_SYSTEM_TABLE* table) {
    image_handle = image;
    system_table = table;
    ForgetImagePath();
    ForgetUnicodeCollation();
}

EFI_HANDLE ImageHandle() { return image_handle; }
EFI_SYSTEM_TABLE* SystemTable() { return system_table; }
EFI_BOOT_SERVICES* BootServices() { return system_table->BootServices; }
EFI_RUNTIME_SERVICES* RuntimeServices() { return system_table->RuntimeServices; }

}  // namespace Uefi
