// Growth of a tree's file by its clump: in place when the allocation file
// finds the blocks behind the last extent, else the whole file moves to a
// new list of extents and its blocks are carried over.
#include <algorithm>

#include "hfsplus/allocation_file.h"
#include "hfsplus/btree.h"
#include "hfsplus/btree_map.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/nodes_cache.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kOverflowExtents = 8;

}  // namespace

void SpecialFileWithBTree::CopyFromOldPlace(const ExtentsDescriptorArray& old_extents,
                                            const ExtentsDescriptorArray& new_extents) {
    const std::uint32_t node_blocks = GetAllocationUnit();
    const std::uint64_t per_block = driver->sectors_per_block();
    // Block by block index, in steps of at most one node: both sides of a
    // step lie in one extent each.
    for (std::uint32_t block = 0; block < old_extents.block_count();) {
        const BlockArea from = old_extents.Locate(block);
        const BlockArea to = new_extents.Locate(block);
        if (from.IsEmpty() || to.IsEmpty() || from.first == to.first) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        const std::uint32_t step = std::min({from.GetCount(), to.GetCount(), node_blocks});
        if (std::min(from.GetCount(), to.GetCount()) < node_blocks) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        MoveSectors(SectorArea::FromCount(from.first * per_block, step * per_block),
                    SectorArea::FromCount(to.first * per_block, step * per_block));
        block += step;
    }
}

void SpecialFileWithBTree::StoreFork(std::uint32_t new_nodes, std::uint32_t old_extent_count, std::uint32_t old_clump) {
    VolumeHeader& header = volume_header->header();
    auto* fork_data = const_cast<ForkData*>(header.fork(fork_id));
    if (fork_data == nullptr || extents.extent_count() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    BTHeaderRec& record = ChangeHeader();
    record.totalNodes_.set(record.totalNodes() + new_nodes);
    record.freeNodes_.set(record.freeNodes() + new_nodes);
    if (extents.extent_count() != old_extent_count + 1) fork_data->clumpSize_.set(header.dataClumpSize_.get());
    fork_data->logicalSize_.set(fork_data->logicalSize() + old_clump);
    fork_data->totalBlocks_.set(fork_data->totalBlocks() + old_clump / driver->block_size());
    extents.GetGroup(0, fork_data->extents_);
    volume_header->MarkDirty();
    MarkDirty();
}

// The extents overflow tree can't hold its own file's extents: growth in
// place that would take a ninth gives its blocks back, and the file stays
// as it was.
void SpecialFileWithBTree::GiveBackGrowth(const ExtentsDescriptorArray& old_extents) {
    ExtentsDescriptorArray added;
    for (std::uint32_t block = old_extents.block_count(); block < extents.block_count();) {
        const BlockArea area = extents.Locate(block);
        added.AddArea(area);
        block += area.GetCount();
    }
    extents = old_extents;
    allocation->FreeExtents(added);
    Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void SpecialFileWithBTree::ExtendTree() {
    CheckWritable();
    if (allocation == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const std::uint32_t old_clump = fork().clumpSize();
    const std::uint32_t new_nodes = old_clump / node_bytes;
    if (new_nodes == 0 || old_clump % driver->block_size() != 0 ||
        static_cast<std::uint64_t>(total) + new_nodes > 0xFFFFFFFFu) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::uint32_t old_extent_count = extents.extent_count();
    const ExtentsDescriptorArray old_extents(extents);
    if (allocation->ExtendTreeFile(*this)) {
        if (fork_id == kExtentsFileId && extents.extent_count() > kOverflowExtents) GiveBackGrowth(old_extents);
    } else {
        // The allocation file keeps a moved extents overflow file within
        // its eight extents; an empty answer means no room.
        const ExtentsDescriptorArray moved(allocation->RelocateTreeFile(*this));
        if (moved.extent_count() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
        CopyFromOldPlace(old_extents, moved);
        extents = moved;
    }
    total += new_nodes;
    cache->Resize(total);
    map->Resize(total);
    StoreFork(new_nodes, old_extent_count, old_clump);
    // Extents past the fork's eight live in the overflow tree; a file moved
    // into eight or fewer leaves no record of its old place there.
    ExtentsOverflowFile& overflow = driver->metadata().GetExtentsOverflowFile();
    if (old_extent_count > kOverflowExtents && extents.extent_count() <= kOverflowExtents) {
        overflow.DeleteRecords(fork_id, kDataFork);
    }
    overflow.WriteOverflowExtents(*this);
}

}  // namespace hfsplus
