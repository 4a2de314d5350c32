#include "extfs/descriptor_updates.h"

#include <algorithm>
#include <cstring>

#include "extfs/descriptor_checksum.h"
#include "extfs/extfs_driver.h"

namespace extfs {

namespace {

std::uint32_t Join(const Common::le16& low, const Common::le16& high, bool wide) {
    return low.get() | (wide ? std::uint32_t(high.get()) << 16 : 0);
}

// The high half is left alone on a narrow volume: there it is not a
// field of the descriptor at all.
void Split(Common::le16& low, Common::le16& high, std::uint32_t value, bool wide) {
    low.set(static_cast<std::uint16_t>(value));
    if (wide) high.set(static_cast<std::uint16_t>(value >> 16));
}

}  // namespace

std::uint32_t DescriptorCounts::free_blocks(const GroupDescriptor& entry, bool wide) {
    return Join(entry.bg_free_blocks_count_lo_, entry.bg_free_blocks_count_hi_, wide);
}
std::uint32_t DescriptorCounts::free_inodes(const GroupDescriptor& entry, bool wide) {
    return Join(entry.bg_free_inodes_count_lo_, entry.bg_free_inodes_count_hi_, wide);
}
std::uint32_t DescriptorCounts::used_dirs(const GroupDescriptor& entry, bool wide) {
    return Join(entry.bg_used_dirs_count_lo_, entry.bg_used_dirs_count_hi_, wide);
}
std::uint32_t DescriptorCounts::itable_unused(const GroupDescriptor& entry, bool wide) {
    return Join(entry.bg_itable_unused_lo_, entry.bg_itable_unused_hi_, wide);
}
void DescriptorCounts::set_free_blocks(GroupDescriptor& entry, std::uint32_t value, bool wide) {
    Split(entry.bg_free_blocks_count_lo_, entry.bg_free_blocks_count_hi_, value, wide);
}
void DescriptorCounts::set_free_inodes(GroupDescriptor& entry, std::uint32_t value, bool wide) {
    Split(entry.bg_free_inodes_count_lo_, entry.bg_free_inodes_count_hi_, value, wide);
}
void DescriptorCounts::set_used_dirs(GroupDescriptor& entry, std::uint32_t value, bool wide) {
    Split(entry.bg_used_dirs_count_lo_, entry.bg_used_dirs_count_hi_, value, wide);
}
void DescriptorCounts::set_itable_unused(GroupDescriptor& entry, std::uint32_t value, bool wide) {
    Split(entry.bg_itable_unused_lo_, entry.bg_itable_unused_hi_, value, wide);
}
void DescriptorCounts::clear_flag(GroupDescriptor& entry, std::uint16_t flag) {
    entry.bg_flags_.set(static_cast<std::uint16_t>(entry.bg_flags() & ~flag));
}

DescriptorUpdates::DescriptorUpdates(ExtfsDriver* driver) : driver_(driver), dirty_groups_(driver->groups, 0) {}

bool DescriptorUpdates::wide() const { return driver_->has_incompat(kIncompat64Bit); }

GroupDescriptor DescriptorUpdates::read(std::uint32_t group) const { return driver_->descriptor(group); }

void DescriptorUpdates::write(std::uint32_t group, const GroupDescriptor& entry) {
    if (group >= driver_->groups) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // A narrow descriptor takes back only its own 32 bytes.
    std::memcpy(driver_->descriptors.data() + std::size_t(group) * driver_->descriptor_size, &entry,
                std::min<std::size_t>(driver_->descriptor_size, sizeof(entry)));
    dirty_groups_[group] = 1;
    superblock_dirty_ = true;
}

void DescriptorUpdates::flush() {
    for (std::uint32_t group = 0; group < driver_->groups; ++group) {
        if (dirty_groups_[group] != 0) flush_descriptor(group);
    }
    if (superblock_dirty_) flush_superblock();
}

void DescriptorUpdates::flush_descriptor(std::uint32_t group) {
    const std::uint32_t size = driver_->descriptor_size;
    unsigned char* bytes = driver_->descriptors.data() + std::size_t(group) * size;
    // A checksum that is fresh costs nothing where nobody checks it, and a
    // volume that gains the feature later finds it right.
    Common::StoreLE16(bytes + offsetof(GroupDescriptor, bg_checksum_),
                      DescriptorChecksum(driver_->superblock.s_uuid(), group, bytes, size, wide()));
    // The block the mount read it from: the primary table, or with META_BG
    // the first group of the run of groups whose descriptors fill a block.
    const std::uint32_t per_block = driver_->block_size() / size;
    std::uint64_t block;
    if (group / per_block < driver_->descriptor_blocks) {
        block = std::uint64_t(driver_->first_data_block) + 1 + group / per_block;
    } else {
        std::uint32_t first = group - group % per_block;
        block = std::uint64_t(first) * driver_->blocks_per_group + driver_->first_data_block +
                driver_->has_super(first);
    }
    BlockHandle handle = driver_->get_fs_block(block, false);
    driver_->prepare_block_write(handle);
    std::memcpy(handle.data() + std::size_t(group % per_block) * size, bytes, size);
    handle.set_dirty();
    dirty_groups_[group] = 0;
}

void DescriptorUpdates::flush_superblock() {
    const bool is_wide = wide();
    std::uint64_t free_blocks = 0;
    std::uint64_t free_inodes = 0;
    for (std::uint32_t group = 0; group < driver_->groups; ++group) {
        GroupDescriptor entry = read(group);
        free_blocks += DescriptorCounts::free_blocks(entry, is_wide);
        free_inodes += DescriptorCounts::free_inodes(entry, is_wide);
    }
    Superblock& superblock = driver_->superblock;
    superblock.s_free_blocks_count_lo_.set(static_cast<std::uint32_t>(free_blocks));
    if (is_wide) superblock.s_free_blocks_count_hi_.set(static_cast<std::uint32_t>(free_blocks >> 32));
    superblock.s_free_inodes_count_.set(static_cast<std::uint32_t>(free_inodes));
    driver_->free_blocks = free_blocks;
    driver_->free_inodes = static_cast<std::uint32_t>(free_inodes);
    // The superblock lies at byte 1024: in block 1 of a 1 KiB grid, inside
    // block 0 of a larger one.
    const std::uint32_t size = driver_->block_size();
    BlockHandle handle = driver_->get_fs_block(Superblock::kOffset / size, false);
    driver_->prepare_block_write(handle);
    std::memcpy(handle.data() + Superblock::kOffset % size, &superblock, sizeof(superblock));
    handle.set_dirty();
    superblock_dirty_ = false;
}

}  // namespace extfs
