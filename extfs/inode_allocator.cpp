#include "extfs/inode_allocator.h"

#include "extfs/descriptor_updates.h"
#include "extfs/extfs_driver.h"

namespace extfs {

ExtfsInodeAllocator::ExtfsInodeAllocator(ExtfsDriver* driver, DescriptorUpdates* updates)
    : ExtfsObjectAllocator(driver, driver->inodes_per_group, 0, driver->first_inode_index, driver->inodes_count),
      updates_(updates) {}

BlockHandle ExtfsInodeAllocator::load_bitmap(std::uint32_t group) {
    const GroupDescriptor entry = driver->descriptor(group);
    const bool fresh = driver->has_ro_compat(kRoCompatGdtCsum) && (entry.bg_flags() & kInodeUninit) != 0;
    BlockHandle bitmap = take_bitmap(entry.bg_inode_bitmap(), fresh, per_group);
    if (!fresh) return bitmap;
    // The whole table counts as unused: the next allocation draws the line.
    const bool wide = updates_->wide();
    updates_->change(group, [&](GroupDescriptor& entry) {
        DescriptorCounts::clear_flag(entry, kInodeUninit);
        DescriptorCounts::set_itable_unused(entry, per_group, wide);
    });
    return bitmap;
}

void ExtfsInodeAllocator::update_group(std::uint32_t group, bool allocated, std::uint32_t free_count,
                                       std::uint32_t bit, std::uint32_t kind) {
    const bool wide = updates_->wide();
    const bool checksummed = driver->has_ro_compat(kRoCompatGdtCsum);
    updates_->change(group, [&](GroupDescriptor& entry) {
        DescriptorCounts::set_free_inodes(entry, free_count, wide);
        if (kind == kDirectoryKind) {
            const std::uint32_t dirs = DescriptorCounts::used_dirs(entry, wide);
            // A count already at 0 stays there: the descriptor was wrong,
            // and wrapping round would make it absurd.
            if (allocated || dirs != 0) DescriptorCounts::set_used_dirs(entry, allocated ? dirs + 1 : dirs - 1, wide);
        }
        // The unused tail of the inode table ends behind the highest inode
        // ever used; a free leaves it, as the inode's slot was written.
        if (checksummed && allocated) {
            const std::uint32_t unused = per_group - 1 - bit;
            if (DescriptorCounts::itable_unused(entry, wide) > unused) {
                DescriptorCounts::set_itable_unused(entry, unused, wide);
            }
        }
    });
}

std::uint32_t ExtfsInodeAllocator::recorded_free(std::uint32_t group) const {
    return DescriptorCounts::free_inodes(driver->descriptor(group), updates_->wide());
}

}  // namespace extfs
