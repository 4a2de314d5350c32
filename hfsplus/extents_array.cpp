#include "hfsplus/extents_array.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"

namespace hfsplus {

namespace {

ExtentDescriptor MakeDescriptor(std::uint32_t start, std::uint32_t count) {
    ExtentDescriptor descriptor{};
    descriptor.startBlock_.set(start);
    descriptor.blockCount_.set(count);
    return descriptor;
}

}  // namespace

ExtentsDescriptorArray::ExtentsDescriptorArray(const ExtentsDescriptorArray& other) { AddAll(other); }

ExtentsDescriptorArray& ExtentsDescriptorArray::operator=(const ExtentsDescriptorArray& other) {
    if (this != &other) {
        Clear();
        AddAll(other);
    }
    return *this;
}

void ExtentsDescriptorArray::Append(const ExtentDescriptor* extents, unsigned count) {
    for (unsigned i = 0; i < count; ++i) {
        const ExtentDescriptor& extent = extents[i];
        if (extent.empty()) return;
        const std::uint32_t start = extent.startBlock();
        const std::uint32_t length = extent.blockCount();
        // A half-empty descriptor, one that runs past the last block number,
        // or a fork of more than 2^32 - 1 blocks is damage.
        if (start == 0 || length == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (length - 1 > UINT32_MAX - start) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (length > UINT32_MAX - blocks) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        storage.push_back(extent);
        order.push_back(&storage.back());
        starts.push_back(blocks);
        blocks += length;
    }
}

void ExtentsDescriptorArray::AddArea(const BlockArea& area) {
    if (area.IsEmpty()) return;
    const ExtentDescriptor descriptor = MakeDescriptor(area.first, area.GetCount());
    Append(&descriptor, 1);
}

void ExtentsDescriptorArray::AddAll(const ExtentsDescriptorArray& other) {
    if (&other == this) {
        const ExtentsDescriptorArray copy(other);
        AddAll(copy);
        return;
    }
    // Each descriptor of `other` has passed Append once already.
    for (const ExtentDescriptor* extent : other.order) Append(extent, 1);
}

void ExtentsDescriptorArray::Clear() {
    storage.clear();
    order.clear();
    starts.clear();
    blocks = 0;
}

const ExtentDescriptor& ExtentsDescriptorArray::GetExtent(std::uint32_t index) const {
    if (index >= order.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return *order[index];
}

BlockArea ExtentsDescriptorArray::Locate(std::uint32_t block) const {
    if (block >= blocks) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // The last extent that starts at or before the block holds it.
    const auto behind = std::upper_bound(starts.begin(), starts.end(), block);
    const std::size_t index = static_cast<std::size_t>(behind - starts.begin()) - 1;
    const std::uint32_t offset = block - starts[index];
    const ExtentDescriptor& extent = *order[index];
    return BlockArea::FromCount(extent.startBlock() + offset, extent.blockCount() - offset);
}

void ExtentsDescriptorArray::GetGroup(std::uint32_t index, ExtentDescriptor (&group)[kExtentsPerRecord]) const {
    const std::size_t groups = (order.size() + kExtentsPerRecord - 1) / kExtentsPerRecord;
    if (index >= groups) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::memset(group, 0, sizeof(group));
    const std::size_t first = std::size_t(index) * kExtentsPerRecord;
    const std::size_t count = std::min<std::size_t>(kExtentsPerRecord, order.size() - first);
    for (std::size_t i = 0; i < count; ++i) group[i] = *order[first + i];
}

std::uint32_t ExtentsDescriptorArray::GetBlocksBefore(std::uint32_t group) const {
    const std::uint64_t first = std::uint64_t(group) * kExtentsPerRecord;
    if (first >= order.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return starts[static_cast<std::size_t>(first)];
}

std::vector<BlockArea> ExtentsDescriptorArray::Areas() const {
    std::vector<BlockArea> areas;
    areas.reserve(order.size());
    for (const ExtentDescriptor* extent : order) {
        areas.push_back(BlockArea::FromCount(extent->startBlock(), extent->blockCount()));
    }
    return areas;
}

void ExtentsDescriptorArray::Assign(const std::vector<BlockArea>& areas) {
    Clear();
    for (const BlockArea& area : areas) AddArea(area);
}

void ExtentsDescriptorArray::Merge() {
    std::vector<BlockArea> list = Areas();
    auto ends_at = [](const BlockArea& lower, const BlockArea& upper) {
        return std::uint64_t(lower.last) + 1 == upper.first;
    };
    for (std::size_t index = 1; index < list.size();) {
        const BlockArea moved = list[index];
        if (moved.first >= list[index - 1].first) {
            if (ends_at(list[index - 1], moved)) {
                list[index - 1].last = moved.last;
                list.erase(list.begin() + static_cast<std::ptrdiff_t>(index));
            } else {
                ++index;
            }
            continue;
        }
        // The last descriptor below it that starts below it takes it.
        std::size_t below = index - 1;
        while (below > 0 && list[below - 1].first >= moved.first) --below;
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(index));
        if (below > 0 && ends_at(list[below - 1], moved)) {
            // The descriptor that moved up into its place is looked at next.
            list[below - 1].last = moved.last;
            continue;
        }
        list.insert(list.begin() + static_cast<std::ptrdiff_t>(below), moved);
        ++index;
    }
    Assign(list);
}

void ExtentsDescriptorArray::MergeLastPairs() {
    std::vector<BlockArea> list = Areas();
    for (std::size_t upper = list.size(); upper-- > 1;) {
        BlockArea& lower = list[upper - 1];
        const BlockArea& above = list[upper];
        if (lower.IsEmpty() || above.IsEmpty() || std::uint64_t(lower.last) + 1 != above.first) continue;
        lower.last = above.last;
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(upper));
        if (upper-- == 1) break;  // the walk goes on two places down
    }
    Assign(list);
}

void ExtentsDescriptorArray::RemoveLast() {
    blocks -= order.back()->blockCount();
    order.pop_back();
    starts.pop_back();
    storage.pop_back();  // the list's order is the storage's
}

void ExtentsDescriptorArray::TruncateTo(std::uint32_t kept, ExtentsDescriptorArray& freed) {
    if (kept == blocks) return;
    if (kept > blocks) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    while (blocks > kept) {
        if (order.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        ExtentDescriptor& last = *order.back();
        const std::uint32_t start = last.startBlock();
        const std::uint32_t count = last.blockCount();
        if (start == 0 || count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint32_t first_block = starts.back();
        if (first_block >= kept) {
            freed.AddArea(BlockArea::FromCount(start, count));
            RemoveLast();
            continue;
        }
        const std::uint32_t stays = kept - first_block;
        freed.AddArea(BlockArea::FromCount(start + stays, count - stays));
        last.blockCount_.set(stays);
        blocks -= count - stays;
    }
    if (blocks != kept) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    freed.Merge();
}

}  // namespace hfsplus
