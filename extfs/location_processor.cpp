#include "extfs/location_processor.h"

#include "extfs/block_allocator.h"

namespace extfs {

void InodeLocationProcessor::free_blocks(const BlockRangeList& list, ExtfsBlockWalk& walk) {
    ExtfsBlockAllocator& allocator = driver->block_allocator();
    for (const BlockRangeList::Range& range : list.ranges()) {
        // The walk mustn't keep a freed map block in hand as if it still were one.
        walk.forget(range.first, range.first + range.count);
        for (std::uint64_t block = range.first; block < range.first + range.count; ++block) allocator.free(block, 0);
    }
}

}  // namespace extfs
