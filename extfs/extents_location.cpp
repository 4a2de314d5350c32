// Reading the extent tree. Every node is checked when it is reached, and a
// child must be strictly shallower than its parent, so a damaged tree
// can't send the walk round in a circle; the depth is bounded anyway.
#include <cstring>

#include "extfs/location_processor.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

constexpr std::uint32_t kRecordSize = sizeof(ExtentLeaf);  // the header and each entry
constexpr std::uint64_t kLargestKey = 0xFFFFFFFFu;

// One level of a walk: a node whose header has passed the checks, so that
// its eh_max entries lie inside the node's room.
struct ExtentNode {
    ExtentNode(const unsigned char* bytes, std::uint32_t capacity, std::uint64_t level)
        : header(reinterpret_cast<const ExtentHeader*>(bytes)), level(level) {
        if (level >= ExtentsLocationProcessor::kMaxDepth) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (header->eh_magic() != ExtentHeader::kMagic) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (header->eh_entries() > header->eh_max()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if ((std::uint32_t(header->eh_max()) + 1) * kRecordSize > capacity) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        if (header->eh_depth() != 0 && header->eh_entries() == 0) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }

    std::uint32_t entries() const { return header->eh_entries(); }
    std::uint32_t depth() const { return header->eh_depth(); }
    // The first logical block of entry `n`, of an index or a leaf alike.
    std::uint32_t key(std::uint32_t n) const { return header->key(n); }

    // The first entry whose key isn't below `key`, by binary search.
    std::uint32_t lower_bound(std::uint64_t wanted) const {
        if (wanted > kLargestKey) wanted = kLargestKey;
        std::uint32_t low = 0;
        std::uint32_t high = entries();
        while (low < high) {
            std::uint32_t middle = low + (high - low) / 2;
            if (key(middle) < wanted) {
                low = middle + 1;
            } else {
                high = middle;
            }
        }
        return low;
    }

    // The index entry to follow for `wanted`.
    std::uint32_t index_for(std::uint64_t wanted) const {
        std::uint32_t at = lower_bound(wanted);
        if (at < entries() && key(at) == wanted) return at;
        return at > 0 ? at - 1 : 0;
    }

    const ExtentHeader* header;
    std::uint64_t level;
};

// The decoded form of a leaf entry.
struct ExtentRecord {
    explicit ExtentRecord(const ExtentLeaf& leaf) {
        first_logical = leaf.ee_block();
        first_physical = leaf.ee_start();
        unwritten = leaf.ee_len() > ExtentsLocationProcessor::kUnwrittenBias;
        length = unwritten ? leaf.ee_len() - ExtentsLocationProcessor::kUnwrittenBias : leaf.ee_len();
    }
    bool holds(std::uint64_t block) const {
        return first_physical != 0 && block >= first_logical && block - first_logical < length;
    }

    std::uint64_t first_logical;
    std::uint64_t first_physical;
    std::uint32_t length;
    bool unwritten;
};

}  // namespace

std::uint64_t ExtentsLocationProcessor::first_block(const unsigned char* map) {
    ExtentNode root(map, InodeRecord::kMapBytes, 0);
    if (root.entries() == 0) return 0;
    if (root.depth() == 0) return ExtentRecord(root.header->leaf(0)).first_physical;
    return root.header->index(0).child();
}

std::uint64_t ExtentsLocationProcessor::locate(const unsigned char* map, std::uint64_t block, std::uint64_t& count,
                                               bool& unwritten, ExtfsBlockWalk& walk) {
    // A copy of the root: a read leaves the inode's bytes as they were.
    unsigned char root[InodeRecord::kMapBytes];
    std::memcpy(root, map, sizeof(root));
    ExtentNode node(root, sizeof(root), 0);
    while (node.depth() != 0) {
        std::uint64_t child = node.header->index(node.index_for(block)).child();
        std::uint64_t level = node.level + 1;
        if (level >= kMaxDepth) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const unsigned char* bytes = walk.level_block(child, static_cast<std::uint32_t>(level)).data();
        ExtentNode below(bytes, driver->block_size(), level);
        if (below.depth() >= node.depth()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        node = below;
    }
    count = 1;
    unwritten = false;
    std::uint32_t at = node.lower_bound(block);
    std::uint32_t from = at > 0 ? at - 1 : 0;
    std::uint32_t to = at < node.entries() ? at : node.entries() - (node.entries() > 0 ? 1 : 0);
    for (std::uint32_t n = from; node.entries() > 0 && n <= to; ++n) {
        ExtentRecord extent(node.header->leaf(n));
        if (!extent.holds(block)) continue;
        unwritten = extent.unwritten;
        count = extent.length - (block - extent.first_logical);
        return extent.first_physical + (block - extent.first_logical);
    }
    return ExtfsDriver::kNoBlock;
}

}  // namespace extfs
