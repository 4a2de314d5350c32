// How an inode's data changes: blocks mapped and freed through its map,
// the block count that goes with them, and the size. The map itself is
// the location processor's; here is what every map change has in common.
#include <algorithm>

#include "extfs/extfs_inode.h"
#include "loader/common/raise.h"
#include "platform/clib/clib.h"

namespace extfs {

namespace {

constexpr std::uint64_t kLargestUnits32 = 0xFFFFFFFFull;         // i_blocks_lo alone
constexpr std::uint64_t kLargestUnits48 = 0xFFFFFFFFFFFFull;     // with the high half
constexpr std::uint64_t kLargestSmallFile = 0x7FFFFFFFull;
constexpr std::uint64_t kLargestDirectorySize = 0x100000000ull;  // directories keep one size word

}  // namespace

void ExtfsInode::set_blocks(std::uint64_t count) {
    if (count >= driver->blocks_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (count == 0 && record().i_file_acl() != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const bool huge = driver->has_ro_compat(kRoCompatHugeFile);
    const std::uint64_t units = count << driver->block_shift;
    if (units > kLargestUnits32 && !huge) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    InodeRecord& inode = writable();
    std::uint64_t stored = units;
    if (units > kLargestUnits48) {
        inode.set_i_flags(inode.i_flags() | kHugeFileFlag);
        stored = count;
    } else {
        inode.set_i_flags(inode.i_flags() & ~kHugeFileFlag);
    }
    inode.set_i_blocks_lo(static_cast<std::uint32_t>(stored));
    if (huge) inode.set_i_blocks_high(static_cast<std::uint16_t>(stored >> 32));
}

std::uint64_t ExtfsInode::allocate_block(std::uint64_t block, bool unwritten) {
    std::uint64_t allocated = 0;
    const std::uint64_t physical = processor->allocate(writable().i_block(), block, allocated, unwritten, *walk);
    if (allocated != 0) set_blocks(blocks() + allocated);
    return physical;
}

std::uint64_t ExtfsInode::allocate_run(std::uint64_t block, std::uint64_t count, std::uint64_t& got,
                                       bool unwritten) {
    if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    got = 0;
    std::uint64_t first = ExtfsDriver::kNoBlock;
    while (got < count) {
        std::uint64_t physical;
        try {
            physical = allocate_block(block + got, unwritten);
        } catch (const Common::Error& error) {
            // What fitted is kept: the caller sees a shorter run.
            if (error.Code() == Common::FILE_DISK_FULL && got > 0) break;
            throw;
        }
        if (got == 0) {
            first = physical;
        } else if (physical != first + got) {
            break;  // mapped now, and found by the next call
        }
        ++got;
    }
    return first;
}

void ExtfsInode::release_blocks(std::uint64_t first, std::uint64_t count) {
    if (!has_data()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t block_size = driver->block_size();
    const std::uint64_t last = (size() + block_size - 1) / block_size;
    if (first > last || count > last - first) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // Reaching the last block of the size takes what lies behind the size too.
    if (first + count == last) count = std::max(processor->max_blocks(), last) - first;
    const std::uint64_t freed = processor->release(writable().i_block(), first, count, *walk);
    set_blocks(blocks() - std::min(freed, blocks()));
}

void ExtfsInode::set_size(std::uint64_t new_size) {
    const std::uint64_t old_size = size();
    if (new_size == old_size) return;
    const std::uint64_t block_size = driver->block_size();
    if (new_size < old_size) {
        if (has_data()) {
            const std::uint64_t keep = (new_size + block_size - 1) / block_size;
            const std::uint64_t last = (old_size + block_size - 1) / block_size;
            release_blocks(keep, last - keep);
        }
    } else {
        zero_behind(old_size, new_size);
    }
    set_size_field(new_size);
    const file_time now = Clib::Now();
    set_modified(now);
    set_accessed(now);
}

void ExtfsInode::zero_behind(std::uint64_t old_size, std::uint64_t new_size) {
    const std::uint64_t block_size = driver->block_size();
    std::uint64_t block = old_size / block_size;
    const std::uint32_t tail = static_cast<std::uint32_t>(old_size % block_size);
    std::uint64_t count = 0;
    if (tail != 0) {
        // The rest of the old last block may hold bytes of an older, longer size.
        const std::uint64_t physical = map_block(block, count);
        if (physical != ExtfsDriver::kNoBlock) {
            BlockHandle handle = driver->get_fs_block(physical, false);
            driver->prepare_block_write(handle);
            std::fill(handle.data() + tail, handle.data() + block_size, 0);
            handle.set_dirty();
        }
        ++block;
    }
    // Blocks mapped behind the old size are no hole: what they hold must read as zeros.
    const std::uint64_t end = std::min((new_size + block_size - 1) / block_size, processor->max_blocks());
    while (block < end) {
        const std::uint64_t physical = map_block(block, count);
        if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        count = std::min(count, end - block);
        if (physical != ExtfsDriver::kNoBlock) driver->zero_blocks(physical, count);
        block += count;
    }
}

void ExtfsInode::set_size_field(std::uint64_t new_size) {
    InodeRecord& inode = record_for_size(new_size);
    // A size past 2 GiB is readable only where the volume says it may be.
    if (is_regular() && new_size > kLargestSmallFile) driver->set_ro_feature(kRoCompatLargeFile);
    inode.set_i_size_lo(static_cast<std::uint32_t>(new_size));
    if (is_regular()) inode.set_i_size_high(static_cast<std::uint32_t>(new_size >> 32));
}

InodeRecord& ExtfsInode::record_for_size(std::uint64_t new_size) {
    const std::uint64_t block_size = driver->block_size();
    if (is_directory()) {
        if (new_size % block_size != 0 || new_size >= kLargestDirectorySize) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    } else if (is_symlink()) {
        if (new_size > block_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    } else if (!is_regular()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return writable();
}

}  // namespace extfs
