// Whole blocks written past the block cache, and the flush that first puts
// changed inodes and descriptors into their cached blocks.
#include <algorithm>
#include <cstdint>
#include <cstring>

#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/aligned_buffer.h"

namespace extfs {

namespace {

constexpr std::size_t kZeroChunk = 0x20000;

}  // namespace

void ExtfsDriver::write_blocks(const void* buffer, std::uint64_t block, std::uint64_t count) {
    if (block >= blocks_count || count > blocks_count - block) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (read_only) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    if (reinterpret_cast<std::uintptr_t>(bytes) % sector_size != 0) {
        // The device takes only aligned buffers: each block goes through its cached image.
        for (std::uint64_t n = 0; n < count; ++n) {
            BlockHandle handle = get_fs_block(block + n, true);
            prepare_block_write(handle);
            std::memcpy(handle.data(), bytes + n * block_size(), block_size());
            handle.set_dirty();
        }
        return;
    }
    // A direct transfer skips the gate that a cached block passes.
    if (!writable_known) before_first_write();
    write_sectors(bytes, block * sectors_per_block, count * sectors_per_block);
}

void ExtfsDriver::zero_blocks(std::uint64_t block, std::uint64_t count) {
    if (block >= blocks_count || count > blocks_count - block) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (count == 0) return;
    // Blocks are at most 64 KiB, so the chunk holds at least two.
    AlignedBuffer zeros(kZeroChunk, sector_size);
    const std::uint64_t per_chunk = kZeroChunk / block_size();
    while (count > 0) {
        const std::uint64_t step = std::min(count, per_chunk);
        write_blocks(zeros.data(), block, step);
        block += step;
        count -= step;
    }
}

void ExtfsDriver::begin_change() {
    refuse_if_unchangeable();
    commit();
}

void ExtfsDriver::abandon_changes() {
    // Held read only from now on, no inode or descriptor reaches its block
    // again; what is dirty in the cache belongs to the abandoned change.
    read_only = true;
    for (auto& entry : blocks) entry.second->dirty = 0;
}

void ExtfsDriver::flush_blocks() {
    if (!read_only) {
        inode_cache->flush_all();
        if (allocation) flush_descriptors();
    }
    FileSystemDriverPosix::flush_blocks();
}

}  // namespace extfs
