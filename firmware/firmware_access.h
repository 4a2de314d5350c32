#pragma once
// The two pointers through which the loader reaches the firmware for the
// whole run, and what hangs off them.
#include <efi.h>

#include <string>

namespace Uefi {

// Remembers the image and the system table; forgets what an earlier image
// of the same process cached.
void InitializeFirmwareAccess(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

EFI_HANDLE ImageHandle();
EFI_SYSTEM_TABLE* SystemTable();
EFI_BOOT_SERVICES* BootServices();
EFI_RUNTIME_SERVICES* RuntimeServices();

// Firmware strings are CHAR16; the system writes char16_t.
inline CHAR16* FirmwareString(const char16_t* text) { return reinterpret_cast<CHAR16*>(const_cast<char16_t*>(text)); }
inline const char16_t* SystemString(const CHAR16* text) { return reinterpret_cast<const char16_t*>(text); }

}  // namespace Uefi
