// Mapping one block in the extent tree. The block goes into the leaf that
// covers it: as one block more of a neighbouring extent when it continues
// one, else as an extent of its own. A leaf without room splits, and the
// split runs from the highest level with room down to the leaf; a full
// root first moves its entries into a block of their own and becomes an
// index of one entry, so the tree grows only at the top.
#include <algorithm>
#include <cstring>
#include <utility>

#include "extfs/extent_node.h"
#include "extfs/pending_block.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

// A neighbour cut around the block may give two parts; with the new
// extent and two more neighbours that is five at most.
constexpr std::uint32_t kMostReplacements = 5;
constexpr std::uint32_t kLargestRootDepth = ExtentsLocationProcessor::kMaxDepth - 1;

std::uint16_t EntriesPerBlock(const ExtfsDriver* driver) {
    return static_cast<std::uint16_t>((driver->block_size() - kExtentRecordSize) / kExtentRecordSize);
}

// One allocation: the logical block, the written state it must have, and
// what the change has taken so far.
class ExtentInsert {
public:
    ExtentInsert(ExtfsDriver* driver, std::uint64_t block, bool unwritten, std::uint64_t& allocated)
        : pending(driver), allocated(allocated), driver_(driver), block_(block), unwritten_(unwritten) {}

    // True when the block is in the tree below `node`.
    bool insert(ExtentNode& node) {
        if (!node.is_leaf()) {
            const std::uint32_t at = node.index_for(block_);
            ExtentNode child = node.child(at);
            if (insert(child)) {
                node.sync_key(at, child);
                return true;
            }
        } else if (leaf_insert(node)) {
            return true;
        }
        // No room below. A full node or a leaf leaves the split to its
        // parent; the root has none and grows instead.
        if (node.is_full() || node.is_leaf()) {
            if (!node.is_root()) return false;
            grow_root(node);
        }
        // The split keeps the keys on its way in step with the children.
        split_child(node);
        return true;
    }

    PendingBlock pending;  // the data block, once taken
    std::uint64_t result = ExtfsDriver::kNoBlock;
    std::uint64_t& allocated;

private:
    bool leaf_insert(ExtentNode& leaf) {
        const std::uint32_t at = leaf.lower_bound(block_);
        std::int64_t holder = -1;
        result = pending.block();
        if (!pending.holds()) {
            holder = find_holder(leaf, at);
            if (holder >= 0 && ExtentRecord(leaf.header->leaf(static_cast<std::uint32_t>(holder))).unwritten ==
                                   unwritten_) {
                return true;
            }
            if (holder < 0) result = pending.take(false);
        }
        leaf.make_writable();
        if (at > 0 && merge(leaf, at - 1, holder)) return true;
        if (at < leaf.entries() && merge(leaf, at, holder)) return true;
        return replace_neighbours(leaf, at > 0 ? at - 1 : 0, std::min(at + 2, leaf.entries()));
    }

    // The entry that maps the block already, with `result` set to its
    // physical block; -1 for none.
    std::int64_t find_holder(const ExtentNode& leaf, std::uint32_t at) {
        const std::uint32_t last = std::min(at + 1, leaf.entries());
        for (std::uint32_t n = at > 0 ? at - 1 : 0; n < last; ++n) {
            const ExtentRecord extent(leaf.header->leaf(n));
            if (!extent.holds(block_)) continue;
            result = extent.first_physical + (block_ - extent.first_logical);
            if (result >= driver_->blocks_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            return n;
        }
        return -1;
    }

    // Lengthens entry `n` by the block when it continues it on both sides,
    // logical and physical, in the same state. A block that an extent of
    // the other state held leaves that extent at its edge.
    bool merge(ExtentNode& leaf, std::uint32_t n, std::int64_t holder) {
        if (static_cast<std::int64_t>(n) == holder) return false;
        ExtentRecord extent(leaf.header->leaf(n));
        const std::uint32_t largest = unwritten_ ? kLargestUnwrittenLength : kLargestWrittenLength;
        if (extent.unwritten != unwritten_ || extent.length >= largest || extent.first_physical == 0) return false;
        if (block_ + 1 == extent.first_logical && result + 1 == extent.first_physical) {
            --extent.first_logical;
            --extent.first_physical;
        } else if (block_ != extent.end() || result != extent.first_physical + extent.length) {
            return false;
        }
        ++extent.length;
        extent.store(leaf.header->leaf(n));
        if (holder >= 0) shrink_holder(leaf, static_cast<std::uint32_t>(holder));
        return true;
    }

    void shrink_holder(ExtentNode& leaf, std::uint32_t n) {
        ExtentRecord extent(leaf.header->leaf(n));
        if (extent.length == 1) {
            leaf.shift_entries(n, -1);
            return;
        }
        if (block_ == extent.first_logical) {
            ++extent.first_logical;
            ++extent.first_physical;
        } else if (block_ + 1 != extent.end()) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);  // it overlaps its neighbour
        }
        --extent.length;
        extent.store(leaf.header->leaf(n));
    }

    // Entries [first, end) give way to the new extent and what is left of
    // them around it, in order of their logical blocks; false when the
    // leaf lacks the room, with the entries as they were.
    bool replace_neighbours(ExtentNode& leaf, std::uint32_t first, std::uint32_t end) {
        ExtentRecord parts[kMostReplacements];
        std::uint32_t count = 0;
        parts[count++] = ExtentRecord(block_, result, 1, unwritten_);
        for (std::uint32_t n = first; n < end; ++n) {
            const ExtentRecord extent(leaf.header->leaf(n));
            if (extent.length == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            if (!extent.holds(block_)) {
                add_part(parts, count, extent);
                continue;
            }
            const std::uint64_t behind = block_ + 1 - extent.first_logical;
            add_part(parts, count,
                     ExtentRecord(extent.first_logical, extent.first_physical,
                                  static_cast<std::uint32_t>(block_ - extent.first_logical), extent.unwritten));
            add_part(parts, count,
                     ExtentRecord(block_ + 1, extent.first_physical + behind,
                                  static_cast<std::uint32_t>(extent.length - behind), extent.unwritten));
        }
        // A handful of parts: an insertion sort by logical block.
        for (std::uint32_t n = 1; n < count; ++n) {
            for (std::uint32_t k = n; k > 0 && parts[k].first_logical < parts[k - 1].first_logical; --k) {
                std::swap(parts[k], parts[k - 1]);
            }
        }
        const std::uint32_t growth = count - (end - first);
        if (growth > leaf.room()) return false;
        leaf.shift_entries(end, static_cast<std::int32_t>(growth));
        for (std::uint32_t n = 0; n < count; ++n) parts[n].store(leaf.header->leaf(first + n));
        return true;
    }

    static void add_part(ExtentRecord* parts, std::uint32_t& count, const ExtentRecord& part) {
        if (part.length == 0) return;
        for (std::uint32_t n = 0; n < count; ++n) {
            if (parts[n].overlaps(part)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        parts[count++] = part;
    }

    // Splits the child of `node` that covers the block, and each level
    // below on the same way, down to the leaf, which takes the block.
    void split_child(ExtentNode& node) {
        if (node.is_full()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (node.is_leaf()) {
            if (!leaf_insert(node)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            return;
        }
        const std::uint32_t at = node.index_for(block_);
        ExtentNode child = node.child(at);
        if (child.depth() + 1 != node.depth() || child.entries() < 2) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        PendingBlock fresh(driver_);
        const std::uint64_t number = fresh.take(true);
        BlockHandle handle = driver_->get_fs_block(number, false);
        driver_->prepare_block_write(handle);
        const std::uint32_t moved = child.entries() / 2;
        auto* header = reinterpret_cast<ExtentHeader*>(handle.data());
        header->set_eh_magic(ExtentHeader::kMagic);
        header->set_eh_entries(static_cast<std::uint16_t>(moved));
        header->set_eh_max(EntriesPerBlock(driver_));
        header->set_eh_depth(static_cast<std::uint16_t>(child.depth()));
        header->set_eh_generation(0);
        std::memcpy(&header->leaf(0), &child.header->leaf(child.entries() - moved), moved * kExtentRecordSize);
        handle.set_dirty();
        child.make_writable();
        child.shift_entries(child.entries() - moved, -static_cast<std::int32_t>(moved));
        node.make_writable();
        node.shift_entries(at + 1, 1);
        node.header->index(at + 1).set_ei_block(header->key(0));
        node.header->index(at + 1).set_child(number);
        fresh.clear();
        ++allocated;
        ExtentNode sibling(driver_, node.walk(), handle, number, node.level + 1);
        if (sibling.key(0) <= block_) {
            split_child(sibling);
            node.sync_key(at + 1, sibling);
        } else {
            split_child(child);
            node.sync_key(at, child);
        }
    }

    // The root's entries move into a new block, and the root becomes an
    // index of that one block.
    void grow_root(ExtentNode& root) {
        if (root.depth() + 1 > kLargestRootDepth) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
        if (root.entries() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        PendingBlock fresh(driver_);
        const std::uint64_t number = fresh.take(true);
        BlockHandle handle = driver_->get_fs_block(number, false);
        driver_->prepare_block_write(handle);
        std::memcpy(handle.data(), root.header, InodeRecord::kMapBytes);
        reinterpret_cast<ExtentHeader*>(handle.data())->set_eh_max(EntriesPerBlock(driver_));
        handle.set_dirty();
        const std::uint32_t first_key = root.key(0);
        root.make_writable();
        std::memset(&root.header->leaf(0), 0, InodeRecord::kMapBytes - kExtentRecordSize);
        root.header->set_eh_entries(1);
        root.header->set_eh_depth(static_cast<std::uint16_t>(root.depth() + 1));
        root.header->index(0).set_ei_block(first_key);
        root.header->index(0).set_child(number);
        fresh.clear();
        ++allocated;
    }

    ExtfsDriver* driver_;
    std::uint64_t block_;
    bool unwritten_;
};

}  // namespace

void ExtentsLocationProcessor::init(unsigned char* map) {
    std::memset(map, 0, InodeRecord::kMapBytes);
    auto* header = reinterpret_cast<ExtentHeader*>(map);
    header->set_eh_magic(ExtentHeader::kMagic);
    header->set_eh_max((InodeRecord::kMapBytes - kExtentRecordSize) / kExtentRecordSize);
}

std::uint64_t ExtentsLocationProcessor::allocate(unsigned char* map, std::uint64_t block, std::uint64_t& allocated,
                                                 bool unwritten, ExtfsBlockWalk& walk) {
    allocated = 0;
    if (block > kLargestExtentKey) Common::Raise(ERROR_TAG, Common::Failures::FILE_SEEK);
    ExtentInsert change(driver, block, unwritten, allocated);
    ExtentNode root(driver, &walk, map);
    if (!change.insert(root) || change.result == ExtfsDriver::kNoBlock) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (change.pending.holds()) {
        change.pending.clear();
        ++allocated;
    }
    return change.result;
}

}  // namespace extfs
