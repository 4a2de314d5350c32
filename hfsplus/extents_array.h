#pragma once
// A fork's list of extents in on-disk form, in file order, with the sum of
// their block counts. Descriptors keep their addresses while the list
// grows; two arrays never share storage.
#include <cstdint>
#include <deque>
#include <vector>

#include "hfsplus/area_limits.h"
#include "hfsplus/hfsplus_records.h"

namespace hfsplus {

class ExtentsDescriptorArray {
public:
    ExtentsDescriptorArray() = default;
    ExtentsDescriptorArray(const ExtentsDescriptorArray& other);
    ExtentsDescriptorArray& operator=(const ExtentsDescriptorArray& other);

    // Appends up to `count` descriptors, stopping at the first one whose
    // start and count are both 0; one of the two 0 alone is FILE_CORRUPT,
    // and so is a block count that would pass 2^32 - 1.
    void Append(const ExtentDescriptor* extents, unsigned count);
    void AddArea(const BlockArea& area);
    void AddAll(const ExtentsDescriptorArray& other);
    void Clear();

    const ExtentDescriptor& GetExtent(std::uint32_t index) const;  // FILE_CORRUPT past the count
    // The device blocks from file block `block` to the end of its extent;
    // FILE_CORRUPT at or past the block count.
    BlockArea Locate(std::uint32_t block) const;
    // Group `index` of eight descriptors, padded with zeros.
    void GetGroup(std::uint32_t index, ExtentDescriptor (&group)[kExtentsPerRecord]) const;
    // The file block at which group `group` starts.
    std::uint32_t GetBlocksBefore(std::uint32_t group) const;

    // Joins neighbours and sorts while it joins: a descriptor that starts
    // below the one before it moves down behind the last one that starts
    // below it, and joins that one if it ends where it starts.
    void Merge();
    // Joins neighbours from the last pair down, without sorting: a pair
    // whose lower extent ends where the upper one starts becomes one, and
    // the walk goes on two places down.
    void MergeLastPairs();
    // Keeps the first `kept` file blocks and appends the rest to `freed`,
    // merged. FILE_CORRUPT above the block count, for an empty descriptor
    // on the way, and when the cut doesn't end exactly at `kept`.
    void TruncateTo(std::uint32_t kept, ExtentsDescriptorArray& freed);

    std::uint32_t extent_count() const { return static_cast<std::uint32_t>(order.size()); }
    std::uint32_t block_count() const { return blocks; }

private:
    // Rebuilds the list from areas in file order.
    void Assign(const std::vector<BlockArea>& areas);
    std::vector<BlockArea> Areas() const;
    void RemoveLast();

    std::deque<ExtentDescriptor> storage;       // addresses stay put
    std::vector<ExtentDescriptor*> order;       // file order
    std::vector<std::uint32_t> starts;          // file block at which each extent starts
    std::uint32_t blocks = 0;
};

}  // namespace hfsplus
