#pragma once
// The firmware world's heap over the boot services' pool.
#include <efi.h>

#include <cstddef>

namespace PoolMemory {

// Must run before anything allocates, global constructors included.
void Attach(EFI_BOOT_SERVICES* services);
void* Allocate(std::size_t size);
void Free(void* block);
std::size_t SizeOf(void* block);
int LastError();

}  // namespace PoolMemory
