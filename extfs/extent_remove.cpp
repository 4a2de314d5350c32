// Unmapping a range of logical blocks from the extent tree. Each extent is
// cut by the range; what lay inside is gathered, and nodes left without
// entries leave their parent and are gathered too. Nothing goes back to
// the allocator before the whole range is done, so a tree that maps a
// block twice is found before any of its blocks is freed.
#include <algorithm>

#include "extfs/extent_node.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

class ExtentRemove {
public:
    ExtentRemove(ExtfsDriver* driver, std::uint64_t start, std::uint64_t end)
        : driver_(driver), start_(start), end_(end) {}

    void remove(ExtentNode& node) {
        if (node.is_leaf()) {
            remove_leaf(node);
        } else {
            remove_index(node);
        }
        // An emptied index is a plain empty leaf again: the root keeps no
        // depth without children.
        if (node.entries() == 0 && !node.is_leaf()) {
            node.make_writable();
            node.header->set_eh_depth(0);
        }
    }

    BlockRangeList list;

private:
    void remove_leaf(ExtentNode& leaf) {
        const std::uint32_t at = leaf.lower_bound(start_);
        std::uint32_t n = at > 0 ? at - 1 : 0;
        while (n < leaf.entries() && leaf.key(n) < end_) {
            const ExtentRecord extent(leaf.header->leaf(n));
            const std::uint64_t from = std::max(extent.first_logical, start_);
            const std::uint64_t to = std::min(extent.end(), end_);
            if (from >= to) {
                ++n;
                continue;
            }
            n += cut(leaf, n, extent, from, to);
        }
    }

    // Takes [from, to) out of entry `n`; answers how many entries the
    // extent still has.
    std::uint32_t cut(ExtentNode& leaf, std::uint32_t n, const ExtentRecord& extent, std::uint64_t from,
                      std::uint64_t to) {
        const ExtentRecord before(extent.first_logical, extent.first_physical,
                                  static_cast<std::uint32_t>(from - extent.first_logical), extent.unwritten);
        const ExtentRecord after(to, extent.first_physical + (to - extent.first_logical),
                                 static_cast<std::uint32_t>(extent.end() - to), extent.unwritten);
        const std::uint64_t inside = extent.first_physical + (from - extent.first_logical);
        if (before.length != 0 && after.length != 0 && leaf.is_full()) {
            // No room for the second part: the blocks stay mapped, as zeros.
            if (extent.first_physical != 0) driver_->zero_blocks(checked(inside, to - from), to - from);
            return 1;
        }
        if (extent.first_physical != 0) list.add(checked(inside, to - from), to - from);
        leaf.make_writable();
        if (before.length == 0 && after.length == 0) {
            leaf.shift_entries(n, -1);
            return 0;
        }
        if (before.length == 0 || after.length == 0) {
            (before.length != 0 ? before : after).store(leaf.header->leaf(n));
            return 1;
        }
        leaf.shift_entries(n + 1, 1);
        before.store(leaf.header->leaf(n));
        after.store(leaf.header->leaf(n + 1));
        return 2;
    }

    void remove_index(ExtentNode& node) {
        std::uint32_t n = node.index_for(start_);
        std::uint32_t stop = node.lower_bound(end_);
        while (n < stop) {
            bool emptied = false;
            std::uint64_t number = 0;
            {
                ExtentNode child = node.child(n);
                remove(child);
                emptied = child.entries() == 0;
                number = child.block_number();
                node.sync_key(n, child);
            }
            if (!emptied) {
                ++n;
                continue;
            }
            list.add(number);
            node.make_writable();
            node.shift_entries(n, -1);
            --stop;
        }
    }

    // A physical run of an extent, which must lie inside the volume.
    std::uint64_t checked(std::uint64_t first, std::uint64_t count) const {
        if (first >= driver_->blocks_count || count > driver_->blocks_count - first) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        return first;
    }

    ExtfsDriver* driver_;
    std::uint64_t start_;
    std::uint64_t end_;
};

}  // namespace

std::uint64_t ExtentsLocationProcessor::release(unsigned char* map, std::uint64_t first, std::uint64_t count,
                                                ExtfsBlockWalk& walk) {
    if (count == 0 || first >= max_blocks()) return 0;
    const std::uint64_t end = count > max_blocks() - first ? max_blocks() : first + count;
    ExtentRemove change(driver, first, end);
    {
        // The root lies in the inode, which the caller has made dirty; the
        // nodes below mark their blocks as they go.
        ExtentNode root(driver, &walk, map);
        change.remove(root);
    }
    free_blocks(change.list, walk);
    return change.list.total();
}

}  // namespace extfs
