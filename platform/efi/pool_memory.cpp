// The heap of the firmware world: every allocation of the C and C++ runtime
// goes to the firmware's pool. The pool hands out 8-byte aligned blocks, but
// operator new and malloc promise 16, so each block carries a small header in
// front of the aligned address: the pool's own pointer and the requested size.
#include "platform/efi/pool_memory.h"

#include <efi.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <new>

namespace {

EFI_BOOT_SERVICES* boot_services = nullptr;
int last_error = 0;
constexpr int kOutOfMemory = 12;  // ENOMEM
constexpr std::size_t kHeader = 16;

struct BlockHeader {
    std::size_t size;
    void* pool_block;
};

BlockHeader* HeaderOf(void* user) {
    return reinterpret_cast<BlockHeader*>(static_cast<char*>(user) - sizeof(BlockHeader));
}

}  // namespace

namespace PoolMemory {

void Attach(EFI_BOOT_SERVICES* services) { boot_services = services; }

void* Allocate(std::size_t size) {
    if (boot_services == nullptr || size > SIZE_MAX - 2 * kHeader) {
        last_error = kOutOfMemory;
        return nullptr;
    }
    void* block = nullptr;
    EFI_STATUS status = boot_services->AllocatePool(EfiLoaderData, size + 2 * kHeader, &block);
    if (EFI_ERROR(status) || block == nullptr) {
        last_error = kOutOfMemory;
        return nullptr;
    }
    auto address = reinterpret_cast<std::uintptr_t>(block) + kHeader;
    address = (address + 15) & ~std::uintptr_t(15);
    void* user = reinterpret_cast<void*>(address);
    HeaderOf(user)->size = size;
    HeaderOf(user)->pool_block = block;
    return user;
}

void Free(void* user) {
    if (user == nullptr || boot_services == nullptr) return;
    boot_services->FreePool(HeaderOf(user)->pool_block);
}

std::size_t SizeOf(void* user) { return user == nullptr ? 0 : HeaderOf(user)->size; }

int LastError() { return last_error; }

}  // namespace PoolMemory

extern "C" {

void* malloc(std::size_t size) { return PoolMemory::Allocate(size); }

void free(void* block) { PoolMemory::Free(block); }

void* calloc(std::size_t count, std::size_t size) {
    if (size != 0 && count > SIZE_MAX / size) return nullptr;
    void* block = PoolMemory::Allocate(count * size);
    if (block != nullptr) std::memset(block, 0, count * size);
    return block;
}

void* realloc(void* old_block, std::size_t size) {
    void* block = PoolMemory::Allocate(size);
    if (block == nullptr) return nullptr;
    if (old_block != nullptr) {
        std::size_t old_size = PoolMemory::SizeOf(old_block);
        std::memcpy(block, old_block, old_size < size ? old_size : size);
        PoolMemory::Free(old_block);
    }
    return block;
}

}  // extern "C"

// As the standard operator new: the installed new handler gets its chance
// (the file references install one that turns exhaustion into a stored
// error) before std::bad_alloc is thrown.
void* operator new(std::size_t size) {
    for (;;) {
        void* block = PoolMemory::Allocate(size);
        if (block != nullptr) return block;
        std::new_handler handler = std::get_new_handler();
        if (handler == nullptr) throw std::bad_alloc();
        handler();
    }
}
void* operator new[](std::size_t size) { return operator new(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return PoolMemory::Allocate(size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return PoolMemory::Allocate(size); }
void operator delete(void* block) noexcept { PoolMemory::Free(block); }
void operator delete[](void* block) noexcept { PoolMemory::Free(block); }
void operator delete(void* block, std::size_t) noexcept { PoolMemory::Free(block); }
void operator delete[](void* block, std::size_t) noexcept { PoolMemory::Free(block); }
void operator delete(void* block, const std::nothrow_t&) noexcept { PoolMemory::Free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { PoolMemory::Free(block); }
