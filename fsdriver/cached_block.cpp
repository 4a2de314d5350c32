#include "fsdriver/cached_block.h"

#include <cstddef>
#include <new>

CachedBlock* CachedBlock::create(FileSystemDriver* owner, std::uint64_t first, std::uint32_t count,
                                 std::uint32_t sector_size) {
    std::uint64_t size = charge(count, sector_size);
    if (size > SIZE_MAX) return nullptr;
    void* allocation = ::operator new(static_cast<std::size_t>(size), std::nothrow);
    if (allocation == nullptr) return nullptr;
    // The data starts at the last sector boundary that leaves room for the
    // record in front of it; the spare sector of the charge makes it fit.
    std::uintptr_t start = reinterpret_cast<std::uintptr_t>(allocation);
    std::uintptr_t data = (start + kSlack + sector_size) & ~std::uintptr_t(sector_size - 1);
    CachedBlock* block = new (reinterpret_cast<void*>(data - sizeof(CachedBlock))) CachedBlock;
    block->holds = 1;
    block->dirty = 0;
    block->owner = owner;
    block->first = first;
    block->count = count;
    block->allocation = allocation;
    return block;
}

void CachedBlock::destroy(CachedBlock* block) {
    void* allocation = block->allocation;
    block->~CachedBlock();
    ::operator delete(allocation);
}
