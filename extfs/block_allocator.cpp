#include "extfs/block_allocator.h"

#include "extfs/descriptor_updates.h"
#include "extfs/extfs_driver.h"
#include "extfs/group_metadata.h"

namespace extfs {

ExtfsBlockAllocator::ExtfsBlockAllocator(ExtfsDriver* driver, DescriptorUpdates* updates)
    : ExtfsObjectAllocator(driver, driver->blocks_per_group, driver->first_data_block, driver->first_data_block,
                           driver->blocks_count),
      updates_(updates) {}

void ExtfsBlockAllocator::free(std::uint64_t object, std::uint32_t kind) {
    ExtfsObjectAllocator::free(object, kind);
    driver->discard_block(object * driver->sectors_per_block);
}

BlockHandle ExtfsBlockAllocator::load_bitmap(std::uint32_t group) {
    const GroupDescriptor entry = driver->descriptor(group);
    const bool fresh = driver->has_ro_compat(kRoCompatGdtCsum) && (entry.bg_flags() & kBlockUninit) != 0;
    const std::uint32_t count = objects_in(group);
    BlockHandle bitmap = take_bitmap(entry.bg_block_bitmap(), fresh, count);
    if (!fresh) return bitmap;
    MarkGroupMetadata(*driver, group, bitmap.data(), count);
    updates_->change(group, [](GroupDescriptor& changed) { DescriptorCounts::clear_flag(changed, kBlockUninit); });
    return bitmap;
}

void ExtfsBlockAllocator::update_group(std::uint32_t group, bool, std::uint32_t free_count, std::uint32_t,
                                       std::uint32_t) {
    const bool wide = updates_->wide();
    updates_->change(group,
                     [&](GroupDescriptor& entry) { DescriptorCounts::set_free_blocks(entry, free_count, wide); });
}

std::uint32_t ExtfsBlockAllocator::recorded_free(std::uint32_t group) const {
    return DescriptorCounts::free_blocks(driver->descriptor(group), updates_->wide());
}

}  // namespace extfs
