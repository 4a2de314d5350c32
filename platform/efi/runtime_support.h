#pragma once
#include <efi.h>

namespace RuntimeSupport {

// Remembers the image so that abort can end it through the firmware.
void Attach(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

}  // namespace RuntimeSupport
