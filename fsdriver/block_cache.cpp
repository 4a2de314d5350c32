// The driver's block cache: metadata blocks shared by all drivers of one
// cache group within one budget, and the bulk transfers that pass it by.
#include <cstring>
#include <iterator>

#include "loader/common/raise.h"
#include "fsdriver/file_system_cache.h"
#include "fsdriver/file_system_driver.h"

namespace {

// Restores an owner's flushing flag however the scope is left.
class FlushingMark {
public:
    FlushingMark() = default;
    ~FlushingMark() { put_back(); }
    FlushingMark(const FlushingMark&) = delete;
    FlushingMark& operator=(const FlushingMark&) = delete;

    // Marks `owner` as flushing, putting the previous owner's flag back;
    // answers whether `owner` was flushing already.
    bool switch_to(FileSystemDriver* owner) {
        if (owner != owner_) {
            put_back();
            owner_ = owner;
            owner_->block_lock.lock();
            noted_ = owner_->flushing;
            owner_->flushing = true;
        }
        return noted_;
    }

private:
    void put_back() {
        if (owner_ == nullptr) return;
        owner_->flushing = noted_;
        owner_->block_lock.unlock();
        owner_ = nullptr;
    }

    FileSystemDriver* owner_ = nullptr;
    bool noted_ = false;
};

}  // namespace

// Sector numbers come from the volume's own metadata. Whatever a driver
// checked before, no transfer leaves the volume: a neighbour partition is
// never read as ours, nor written.
void FileSystemDriver::check_inside_volume(std::uint64_t first, std::uint64_t count) const {
    if (first > volume_sectors || count > volume_sectors - first) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

BlockHandle FileSystemDriver::get_block(std::uint64_t first, std::uint32_t count, bool no_read) {
    check_inside_volume(first, count);
    {
        DriverLockHold hold(block_lock);
        auto found = blocks.find(first);
        if (found != blocks.end()) {
            if (found->second->count != count) {
                Common::Raise(ERROR_TAG, Common::RESIZER_INTERNAL,
                              "Internal error: a cached block asked for with another sector count");
            }
            // A hit stays where it is in the cache's list; only a release moves it.
            ++found->second->holds;
            return BlockHandle(found->second);
        }
    }
    CachedBlock* block = CachedBlock::create(this, first, count, sector_size);
    if (block == nullptr) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
    if (!no_read) {
        Common::Error status = device->Transfer(Fdisk::kTransferRead, first_sector + first, block->data(), count);
        if (status.Failed()) {
            CachedBlock::destroy(block);
            Common::Raise(ERROR_TAG, Common::Failures::FILE_READ, status);
        }
    }
    {
        DriverLockHold hold(block_lock);
        blocks.emplace(first, block);
    }
    // The hold is the caller's from here on, whatever eviction raises.
    BlockHandle handle(block);
    DriverLockHold hold(cache->lock);
    std::uint64_t before = cache->bytes;
    cache->bytes += CachedBlock::charge(count, sector_size);
    // Only the miss that crosses the budget evicts. Above it already, the
    // budget is soft: releases bring it down block by block.
    if (before <= kCacheBudget && cache->bytes > kCacheBudget) evict();
    cache->block_list.push_tail(block);
    return handle;
}

bool FileSystemDriver::covered(std::uint64_t sector) const {
    auto after = blocks.upper_bound(sector);
    if (after == blocks.begin()) return false;
    const CachedBlock* block = std::prev(after)->second;
    return sector - block->first < block->count;
}

void FileSystemDriver::admit_unheld(CachedBlock* block) {
    block->holds = 0;
    DriverLockHold hold(cache->lock);
    std::uint64_t before = cache->bytes;
    cache->bytes += CachedBlock::charge(block->count, sector_size);
    cache->block_list.push_tail(block);
    if (before <= kCacheBudget && cache->bytes > kCacheBudget) evict();
}

void FileSystemDriver::prefetch_sectors(std::uint64_t first, std::uint32_t count) {
    if (count < 2 || first > volume_sectors || count > volume_sectors - first) return;
    {
        // A walk still inside what an earlier read-ahead brought needs none.
        DriverLockHold hold(block_lock);
        if (covered(first)) return;
    }
    // The transfer lands in a block of its own, for the alignment every
    // block's data has; it never enters the cache.
    CachedBlock* run = CachedBlock::create(this, first, count, sector_size);
    if (run == nullptr) return;
    if (device->Transfer(Fdisk::kTransferRead, first_sector + first, run->data(), count).Failed()) {
        CachedBlock::destroy(run);
        return;
    }
    for (std::uint32_t i = 0; i < count; ++i) {
        CachedBlock* block = nullptr;
        {
            DriverLockHold hold(block_lock);
            if (covered(first + i)) continue;
            block = CachedBlock::create(this, first + i, 1, sector_size);
            if (block == nullptr) break;
            std::memcpy(block->data(), run->data() + std::size_t(i) * sector_size, sector_size);
            blocks.emplace(first + i, block);
        }
        admit_unheld(block);
    }
    CachedBlock::destroy(run);
}

void FileSystemDriver::evict() {
    FlushingMark mark;
    CachedBlock* block = cache->block_list.head();
    while (block != nullptr && cache->bytes > kCacheBudget) {
        CachedBlock* following = cache->block_list.after(block);
        if (block->holds == 0) {
            FileSystemDriver* owner = block->owner;
            // An owner in a flush is left alone: its blocks are being written.
            bool was_flushing = mark.switch_to(owner);
            if (!was_flushing && block->holds == 0) {
                // One dirty block writes the whole volume: one pass over the
                // disk instead of one write per evicted block.
                if (block->dirty != 0) owner->flush_blocks();
                following = cache->block_list.after(block);
                owner->forget_block(block);
            }
        }
        block = following;
    }
}

void FileSystemDriver::forget_block(CachedBlock* block) {
    blocks.erase(block->first);
    cache->bytes -= CachedBlock::charge(block->count, sector_size);
    block->unlink();
    CachedBlock::destroy(block);
}

void FileSystemDriver::read_volume_bytes(std::uint64_t offset, void* out, std::uint32_t size) {
    if (size == 0) return;
    std::uint64_t first = offset / sector_size;
    std::uint64_t last = (offset + size - 1) / sector_size;
    if (offset > UINT64_MAX - size || last >= volume_sectors) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    bool cached_before = false;
    {
        DriverLockHold hold(block_lock);
        cached_before = blocks.find(first) != blocks.end();
    }
    {
        BlockHandle sectors = get_block(first, static_cast<std::uint32_t>(last - first + 1), false);
        std::memcpy(out, sectors.data() + offset % sector_size, size);
    }
    // Only what this read brought in goes; a block the driver holds stays.
    if (!cached_before) discard_block(first);
}

void FileSystemDriver::release_block(CachedBlock* block) {
    if (block->holds > 1) {
        --block->holds;
        return;
    }
    for (;;) {
        {
            DriverLockHold hold(cache->lock);
            // Within the budget the block stays, as the newest of the list.
            // So it does during its owner's flush, which must not lose blocks.
            if (cache->bytes <= kCacheBudget || flushing) {
                cache->block_list.move_to_tail(block);
                block->holds = 0;
                return;
            }
            if (block->dirty == 0) {
                DriverLockHold blocks_hold(block_lock);
                forget_block(block);
                return;
            }
        }
        // Above the budget a dirty block goes only once it is on the disk.
        commit();
    }
}

void FileSystemDriver::prepare_block_write(BlockHandle& handle) {
    if (!writable_known) first_write_gate(handle.block(), true);
}

void FileSystemDriver::move_block(BlockHandle& handle, std::uint64_t new_first) {
    CachedBlock* block = handle.block();
    if (block->first == new_first) return;
    // Stale data of the new place gives way; a held block there can't.
    discard_block(new_first);
    DriverLockHold hold(block_lock);
    if (blocks.count(new_first) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    blocks.erase(block->first);
    block->first = new_first;
    blocks.emplace(new_first, block);
    block->dirty = 1;
}

void FileSystemDriver::discard_block(std::uint64_t first) {
    DriverLockHold hold(block_lock);
    auto found = blocks.find(first);
    if (found == blocks.end() || found->second->holds != 0) return;
    CachedBlock* block = found->second;
    block->dirty = 0;
    DriverLockHold cache_hold(cache->lock);
    forget_block(block);
}

void FileSystemDriver::first_write_gate(CachedBlock* block, bool ask_driver) {
    if (ask_driver) before_first_write();
    // The block's own first sector, unchanged, tells whether the device takes writes.
    Common::Error status =
        device->Transfer(Fdisk::kTransferWrite, first_sector + block->first, block->data(), 1);
    if (status.Failed()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY, status);
    }
    writable_known = true;
}

void FileSystemDriver::read_cached_run(unsigned char* buffer, std::uint64_t first, std::uint64_t count) {
    while (count != 0) {
        std::uint64_t run = count;
        const CachedBlock* covering = nullptr;
        {
            DriverLockHold hold(block_lock);
            auto behind = blocks.upper_bound(first);
            if (behind != blocks.begin()) {
                const CachedBlock* candidate = std::prev(behind)->second;
                if (candidate->first + candidate->count > first) covering = candidate;
            }
            if (covering != nullptr) {
                std::uint64_t rest = covering->first + covering->count - first;
                if (rest < run) run = rest;
                std::memcpy(buffer, const_cast<CachedBlock*>(covering)->data() + (first - covering->first) * sector_size,
                            run * sector_size);
            } else if (behind != blocks.end() && behind->first - first < run) {
                run = behind->first - first;
            }
        }
        if (covering == nullptr) {
            // Straight from the device, one transfer for the whole run; the
            // sectors don't enter the cache.
            Common::Error status = device->Transfer(Fdisk::kTransferRead, first_sector + first, buffer, run);
            if (status.Failed()) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_READ, status);
            }
        }
        buffer += run * sector_size;
        first += run;
        count -= run;
    }
}

void FileSystemDriver::read_sectors(void* buffer, std::uint64_t first, std::uint64_t count, std::uint32_t unit,
                                    std::uint64_t base) {
    if (count == 0) return;
    check_inside_volume(first, count);
    unsigned char* bytes = static_cast<unsigned char*>(buffer);
    std::uint64_t misalignment = reinterpret_cast<std::uintptr_t>(bytes) & (sector_size - 1);
    if (misalignment == 0) {
        read_cached_run(bytes, first, count);
        return;
    }
    // The device never sees an unaligned buffer, and no staging buffer is
    // needed: all but the last unit is read to the next sector boundary
    // inside the caller's buffer and moved down; the last unit comes
    // through the cache.
    std::uint64_t end = first + count - 1;
    std::uint64_t last = end - ((end - base) & (std::uint64_t(unit) - 1));
    if (first < last) {
        std::uint64_t run = last - first;
        unsigned char* aligned = bytes + (sector_size - misalignment);
        read_cached_run(aligned, first, run);
        std::memmove(bytes, aligned, run * sector_size);
        bytes += run * sector_size;
        first = last;
        count -= run;
    }
    // A unit that the volume's end cuts short is cached as far as it goes.
    std::uint64_t tail_sectors = volume_sectors - last < unit ? volume_sectors - last : unit;
    BlockHandle block = get_block(last, static_cast<std::uint32_t>(tail_sectors), false);
    std::uint64_t offset = first - last;
    if (block.count() < offset + count) {
        // The driver asked for this sector with another count before.
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    std::memcpy(bytes, block.data() + offset * sector_size, count * sector_size);
}

void FileSystemDriver::write_sectors(const void* buffer, std::uint64_t first, std::uint64_t count) {
    if (count == 0) return;
    check_inside_volume(first, count);
    const unsigned char* bytes = static_cast<const unsigned char*>(buffer);
    while (count != 0) {
        std::uint64_t run = count;
        CachedBlock* covering = nullptr;
        {
            DriverLockHold hold(block_lock);
            auto behind = blocks.upper_bound(first);
            if (behind != blocks.begin()) {
                CachedBlock* candidate = std::prev(behind)->second;
                if (candidate->first + candidate->count > first) covering = candidate;
            }
            if (covering != nullptr) {
                // The cached copy takes the data; the flush writes it.
                if (!writable_known) first_write_gate(covering, false);
                std::uint64_t rest = covering->first + covering->count - first;
                if (rest < run) run = rest;
                std::memcpy(covering->data() + (first - covering->first) * sector_size, bytes, run * sector_size);
                covering->dirty = 1;
            } else if (behind != blocks.end() && behind->first - first < run) {
                run = behind->first - first;
            }
        }
        if (covering == nullptr) {
            Common::Error status = device->Transfer(Fdisk::kTransferWrite, first_sector + first,
                                                    const_cast<unsigned char*>(bytes), run);
            if (status.Failed()) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE, status);
            }
            writable_known = true;
        }
        bytes += run * sector_size;
        first += run;
        count -= run;
    }
}
