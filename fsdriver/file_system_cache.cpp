#include "fsdriver/file_system_cache.h"

namespace {

// The global table of caches, by group. A plain pointer, so that it needs
// no constructor before the entry runs.
FileSystemDriver::FileSystemCache* cache_table = nullptr;
DriverLock cache_table_lock;

}  // namespace

FileSystemDriver::FileSystemCache* FileSystemDriver::FileSystemCache::acquire(std::uint32_t group) {
    DriverLockHold hold(cache_table_lock);
    FileSystemCache* cache = cache_table;
    while (cache != nullptr && cache->group != group) cache = cache->next_in_table;
    if (cache == nullptr) {
        cache = new FileSystemCache(group);
        cache->next_in_table = cache_table;
        cache_table = cache;
    }
    ++cache->references;
    return cache;
}

void FileSystemDriver::FileSystemCache::release(FileSystemCache* cache) {
    DriverLockHold hold(cache_table_lock);
    if (--cache->references != 0) return;
    FileSystemCache** link = &cache_table;
    while (*link != cache) link = &(*link)->next_in_table;
    *link = cache->next_in_table;
    delete cache;
}
