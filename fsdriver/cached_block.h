#pragma once
// One block of the cache: a record and, right behind it in the same
// allocation, the block's sectors, aligned on the sector size because the
// firmware's block protocol wants aligned buffers.
#include <cstdint>

#include "fsdriver/lru_list.h"

class FileSystemDriver;

struct CachedBlock : LRUList<CachedBlock> {
    std::uint32_t holds;        // handles that stand on the block
    std::uint8_t dirty;         // the data differs from the disk
    FileSystemDriver* owner;    // whose `blocks` hold it
    std::uint64_t first;        // first sector, relative to the volume
    std::uint32_t count;        // sectors
    void* allocation;           // where the allocation begins

    unsigned char* data() { return reinterpret_cast<unsigned char*>(this + 1); }

    // What a block of `count` sectors costs the budget, and the size of its
    // allocation: one spare sector for the alignment and room for the record.
    static std::uint64_t charge(std::uint32_t count, std::uint32_t sector_size) {
        return (std::uint64_t(count) + 1) * sector_size + kSlack;
    }
    static constexpr std::uint32_t kSlack = 55;

    // Makes a block of `count` sectors with `holds` 1, or answers null when
    // memory is short. `sector_size` is a power of two.
    static CachedBlock* create(FileSystemDriver* owner, std::uint64_t first, std::uint32_t count,
                               std::uint32_t sector_size);
    static void destroy(CachedBlock* block);
};

// The record fits in the slack in front of the aligned data.
static_assert(sizeof(CachedBlock) <= CachedBlock::kSlack + 1, "cached block record");
