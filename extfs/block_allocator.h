#pragma once
// Blocks for files, directories and maps. Bit 0 of group 0 is the first
// data block. A group that GDT_CSUM marks BLOCK_UNINIT has never had its
// bitmap written: the bitmap is made fresh, with the group's own metadata
// marked in use, instead of being read.
#include "extfs/object_allocator.h"

namespace extfs {

class DescriptorUpdates;

class ExtfsBlockAllocator : public ExtfsObjectAllocator {
public:
    static constexpr std::uint16_t kBlockUninit = 2;

    ExtfsBlockAllocator(ExtfsDriver* driver, DescriptorUpdates* updates);

    // Also drops a cached copy of the block, so that stale data of the
    // freed block never lands on its next owner.
    void free(std::uint64_t object, std::uint32_t kind) override;

protected:
    BlockHandle load_bitmap(std::uint32_t group) override;
    std::uint32_t recorded_free(std::uint32_t group) const override;
    void update_group(std::uint32_t group, bool allocated, std::uint32_t free_count, std::uint32_t bit,
                      std::uint32_t kind) override;

private:
    DescriptorUpdates* updates_;
};

}  // namespace extfs
