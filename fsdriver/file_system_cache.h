#pragma once
// The memory budget shared by the drivers of one cache group, and the list
// of their cached blocks, oldest first. Caches stand in one global table by
// group; a driver takes a reference at construction and gives it back at
// destruction, and the last one takes the cache out of the table.
#include <cstdint>

#include "fsdriver/cached_block.h"
#include "fsdriver/driver_lock.h"
#include "fsdriver/file_system_driver.h"
#include "fsdriver/lru_list.h"
#include "fsdriver/reference_count.h"

class FileSystemDriver::FileSystemCache : public ReferenceCount {
public:
    // The group's cache with one more reference; made on first use.
    static FileSystemCache* acquire(std::uint32_t group);
    // One reference less; the last one destroys the cache.
    static void release(FileSystemCache* cache);

    std::uint32_t group;
    std::uint64_t bytes = 0;
    LRUList<CachedBlock> block_list;
    DriverLock lock;

private:
    explicit FileSystemCache(std::uint32_t group) : group(group) {}
    FileSystemCache* next_in_table = nullptr;
};
