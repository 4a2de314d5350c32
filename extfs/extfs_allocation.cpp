#include "extfs/extfs_allocation.h"

#include "extfs/extfs_driver.h"

namespace extfs {

ExtfsAllocation::ExtfsAllocation(ExtfsDriver* driver) : driver_(driver), updates_(driver) {}

ExtfsBlockAllocator& ExtfsAllocation::blocks() {
    if (!blocks_) blocks_ = std::make_unique<ExtfsBlockAllocator>(driver_, &updates_);
    return *blocks_;
}

ExtfsInodeAllocator& ExtfsAllocation::inodes() {
    if (!inodes_) inodes_ = std::make_unique<ExtfsInodeAllocator>(driver_, &updates_);
    return *inodes_;
}

void ExtfsAllocationDeleter::operator()(ExtfsAllocation* allocation) const { delete allocation; }

namespace {

// A volume held read only refuses every allocation, each time it is asked:
// nothing on it may reach a bitmap.
ExtfsAllocation& AllocationOf(ExtfsDriver& driver) {
    if (driver.read_only) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    if (!driver.allocation) driver.allocation.reset(new ExtfsAllocation(&driver));
    return *driver.allocation;
}

}  // namespace

ExtfsBlockAllocator& ExtfsDriver::block_allocator() { return AllocationOf(*this).blocks(); }

ExtfsInodeAllocator& ExtfsDriver::inode_allocator() { return AllocationOf(*this).inodes(); }

void ExtfsDriver::flush_descriptors() {
    if (allocation) allocation->descriptors().flush();
}

}  // namespace extfs
