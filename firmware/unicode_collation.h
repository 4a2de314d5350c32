#pragma once
// The firmware's EFI_UNICODE_COLLATION_PROTOCOL: case mapping and the OEM
// code page of FAT short names. Many firmwares carry it, none must; the
// loader works without it, in ASCII.
#include <efi.h>

namespace Uefi {

// The protocol, located once through LocateProtocol and kept; null when the
// firmware has none or when there is no firmware to ask.
EFI_UNICODE_COLLATION_PROTOCOL* UnicodeCollation();

// Drops what was kept, so that the next call asks the firmware again: a new
// image or a new firmware may answer otherwise.
void ForgetUnicodeCollation();

}  // namespace Uefi
