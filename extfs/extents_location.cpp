// Reading the extent tree. Every node is checked when it is reached, and a
// child must be strictly shallower than its parent, so a damaged tree
// can't send the walk round in a circle; the depth is bounded anyway.
#include <algorithm>
#include <cstring>

#include "extfs/extent_node.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

// The key of the first entry from `n` on that lies above `block`, or no
// bound (the largest) when there is none.
std::uint64_t FirstKeyAbove(const ExtentNode& node, std::uint32_t n, std::uint64_t block) {
    for (; n < node.entries(); ++n) {
        if (node.key(n) > block) return node.key(n);
    }
    return ~std::uint64_t(0);
}

}  // namespace

std::uint64_t ExtentsLocationProcessor::first_block(const unsigned char* map) {
    // Only read: the node never becomes writable.
    unsigned char root[InodeRecord::kMapBytes];
    std::memcpy(root, map, sizeof(root));
    ExtentNode node(driver, nullptr, root);
    if (node.entries() == 0) return 0;
    if (node.is_leaf()) return ExtentRecord(node.header->leaf(0)).first_physical;
    return node.header->index(0).child();
}

std::uint64_t ExtentsLocationProcessor::locate(const unsigned char* map, std::uint64_t block, std::uint64_t& count,
                                               bool& unwritten, ExtfsBlockWalk& walk) {
    // A copy of the root: a read leaves the inode's bytes as they were.
    unsigned char root[InodeRecord::kMapBytes];
    std::memcpy(root, map, sizeof(root));
    ExtentNode node(driver, &walk, root);
    // Where the next mapped stretch may begin: a hole runs up to it, so a
    // walk over a sparse file steps over each hole at once.
    std::uint64_t next_key = max_blocks();
    while (!node.is_leaf()) {
        const std::uint32_t n = node.index_for(block);
        next_key = std::min(next_key, FirstKeyAbove(node, n, block));
        node = node.child(n);
    }
    count = 1;
    unwritten = false;
    if (node.entries() == 0) {
        count = next_key - block;
        return ExtfsDriver::kNoBlock;
    }
    const std::uint32_t at = node.lower_bound(block);
    count = std::min(next_key, FirstKeyAbove(node, at, block)) - block;
    const std::uint32_t from = at > 0 ? at - 1 : 0;
    const std::uint32_t to = at < node.entries() ? at : node.entries() - 1;
    for (std::uint32_t n = from; n <= to; ++n) {
        const ExtentRecord extent(node.header->leaf(n));
        if (!extent.holds(block)) continue;
        unwritten = extent.unwritten;
        count = extent.length - (block - extent.first_logical);
        return extent.first_physical + (block - extent.first_logical);
    }
    return ExtfsDriver::kNoBlock;
}

}  // namespace extfs
