#pragma once
// The allocators of one mounted volume and the descriptor changes they
// make, owned by the driver and made on its first change.
#include <memory>

#include "extfs/block_allocator.h"
#include "extfs/descriptor_updates.h"
#include "extfs/inode_allocator.h"

namespace extfs {

class ExtfsAllocation {
public:
    explicit ExtfsAllocation(ExtfsDriver* driver);

    // Each allocator is made on first use, so that a volume that only
    // allocates blocks never loads an inode bitmap.
    ExtfsBlockAllocator& blocks();
    ExtfsInodeAllocator& inodes();
    DescriptorUpdates& descriptors() { return updates_; }

private:
    ExtfsDriver* driver_;
    DescriptorUpdates updates_;
    // The block allocator goes first, then the inode allocator.
    std::unique_ptr<ExtfsInodeAllocator> inodes_;
    std::unique_ptr<ExtfsBlockAllocator> blocks_;
};

}  // namespace extfs
