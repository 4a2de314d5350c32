// The first C++ code of the image. gnu-efi's crt0 relocates the image and
// calls efi_main; this prepares the heap, runs the global constructors (the
// crt0 does not) and hands over to the loader's entry point.
#include <efi.h>

#include "platform/efi/pool_memory.h"
#include "platform/efi/runtime_support.h"

extern "C" {
using Constructor = void (*)();
extern Constructor __init_array_start[];
extern Constructor __init_array_end[];

EFI_STATUS EFIAPI _ModuleEntryPoint(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table);

EFI_STATUS efi_main(EFI_HANDLE image, EFI_SYSTEM_TABLE* system_table) {
    RuntimeSupport::Attach(image, system_table);
    PoolMemory::Attach(system_table->BootServices);
    for (Constructor* constructor = __init_array_start; constructor != __init_array_end; ++constructor) {
        (*constructor)();
    }
    return _ModuleEntryPoint(image, system_table);
}
}
