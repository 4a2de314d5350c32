#pragma once
// One level of an extent tree walk, and the decoded form of an extent.
// Building a node checks its header, so that its eh_max entries lie inside
// the node's room and every later index below eh_entries is safe. A node
// that a change made writable marks its block dirty when it goes, so no
// change can end without reaching the flush.
#include <cstdint>
#include <cstring>
#include <utility>

#include "extfs/ext_records.h"
#include "extfs/extfs_driver.h"
#include "extfs/location_processor.h"
#include "fsdriver/block_handle.h"
#include "loader/common/raise.h"

namespace extfs {

constexpr std::uint32_t kExtentRecordSize = sizeof(ExtentLeaf);  // the header and each entry
constexpr std::uint64_t kLargestExtentKey = 0xFFFFFFFFu;
constexpr std::uint32_t kLargestWrittenLength = ExtentsLocationProcessor::kUnwrittenBias;
constexpr std::uint32_t kLargestUnwrittenLength = ExtentsLocationProcessor::kUnwrittenBias - 1;

class ExtentNode {
public:
    // The root, in the 60 bytes of `i_block` (or a copy of them).
    ExtentNode(ExtfsDriver* driver, ExtfsBlockWalk* walk, unsigned char* root)
        : header(reinterpret_cast<ExtentHeader*>(root)), level(0), walk_(walk), driver_(driver) {
        check(InodeRecord::kMapBytes);
    }
    // A node below the root, in a cached block.
    ExtentNode(ExtfsDriver* driver, ExtfsBlockWalk* walk, BlockHandle block, std::uint64_t number,
               std::uint64_t at_level)
        : header(reinterpret_cast<ExtentHeader*>(block.data())),
          level(at_level),
          walk_(walk),
          driver_(driver),
          block_(std::move(block)),
          number_(number) {
        check(driver->block_size());
    }
    ExtentNode(ExtentNode&& other) noexcept
        : header(other.header),
          level(other.level),
          walk_(other.walk_),
          driver_(other.driver_),
          block_(std::move(other.block_)),
          number_(other.number_),
          writable_(other.writable_) {
        other.writable_ = false;
    }
    ExtentNode& operator=(ExtentNode&& other) noexcept {
        if (this == &other) return *this;
        finish();
        header = other.header;
        level = other.level;
        walk_ = other.walk_;
        driver_ = other.driver_;
        block_ = std::move(other.block_);
        number_ = other.number_;
        writable_ = other.writable_;
        other.writable_ = false;
        return *this;
    }
    ExtentNode(const ExtentNode&) = delete;
    ExtentNode& operator=(const ExtentNode&) = delete;
    ~ExtentNode() { finish(); }

    bool is_root() const { return !block_; }
    bool is_leaf() const { return depth() == 0; }
    bool is_full() const { return entries() >= header->eh_max(); }
    std::uint32_t entries() const { return header->eh_entries(); }
    std::uint32_t room() const { return header->eh_max() - entries(); }
    std::uint32_t depth() const { return header->eh_depth(); }
    // The first logical block of entry `n`, of an index or a leaf alike.
    std::uint32_t key(std::uint32_t n) const { return header->key(n); }
    // The block that holds the node; the root has none.
    std::uint64_t block_number() const { return number_; }
    ExtfsBlockWalk* walk() const { return walk_; }

    // The first entry whose key isn't below `wanted`, by binary search.
    std::uint32_t lower_bound(std::uint64_t wanted) const {
        if (wanted > kLargestExtentKey) wanted = kLargestExtentKey;
        std::uint32_t low = 0;
        std::uint32_t high = entries();
        while (low < high) {
            const std::uint32_t middle = low + (high - low) / 2;
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
        const std::uint32_t at = lower_bound(wanted);
        if (at < entries() && key(at) == wanted) return at;
        return at > 0 ? at - 1 : 0;
    }

    // The node that index entry `n` points at. It must lie strictly below
    // this one, which keeps a damaged tree from leading the walk in a circle.
    ExtentNode child(std::uint32_t n) const {
        const std::uint64_t below = level + 1;
        if (below >= ExtentsLocationProcessor::kMaxDepth) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint64_t number = header->index(n).child();
        const BlockHandle& handle = walk_->level_block(number, static_cast<std::uint32_t>(below));
        ExtentNode node(driver_, walk_, handle, number, below);
        if (node.depth() >= depth()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        return node;
    }

    // Index entry `n` takes the first key of its child: the checker holds
    // a key that differs from the child's first extent for damage, and a
    // key below it would hide nothing but above it would hide blocks.
    void sync_key(std::uint32_t n, const ExtentNode& below) {
        if (below.entries() == 0 || key(n) == below.key(0)) return;
        make_writable();
        header->index(n).set_ei_block(below.key(0));
    }

    // Passes the first-write gate once; the root lies in the inode, which
    // the caller has made dirty already.
    void make_writable() {
        if (writable_) return;
        if (block_) driver_->prepare_block_write(block_);
        writable_ = true;
    }

    // Opens a gap of `count` entries at `at`, or closes one of `-count`;
    // the entries behind move and eh_entries follows. Vacated bytes are
    // zeroed, so a node never keeps stale entries behind its count.
    void shift_entries(std::uint32_t at, std::int32_t count);

    ExtentHeader* header;
    std::uint64_t level;

private:
    void check(std::uint32_t capacity) const {
        if (level >= ExtentsLocationProcessor::kMaxDepth) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (header->eh_magic() != ExtentHeader::kMagic) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (header->eh_entries() > header->eh_max()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if ((std::uint32_t(header->eh_max()) + 1) * kExtentRecordSize > capacity) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        if (header->eh_depth() != 0 && header->eh_entries() == 0) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
    void finish() {
        if (writable_ && block_) block_.set_dirty();
        writable_ = false;
    }

    ExtfsBlockWalk* walk_;
    ExtfsDriver* driver_;
    BlockHandle block_;
    std::uint64_t number_ = ExtfsDriver::kNoBlock;
    bool writable_ = false;
};

// The decoded form of a leaf entry.
struct ExtentRecord {
    ExtentRecord() = default;
    ExtentRecord(std::uint64_t logical, std::uint64_t physical, std::uint32_t count, bool is_unwritten)
        : first_logical(logical), first_physical(physical), length(count), unwritten(is_unwritten) {}
    explicit ExtentRecord(const ExtentLeaf& leaf) {
        first_logical = leaf.ee_block();
        first_physical = leaf.ee_start();
        unwritten = leaf.ee_len() > ExtentsLocationProcessor::kUnwrittenBias;
        length = unwritten ? leaf.ee_len() - ExtentsLocationProcessor::kUnwrittenBias : leaf.ee_len();
    }

    // A physical block 0 is a hole, whatever the extent says.
    bool holds(std::uint64_t block) const {
        return first_physical != 0 && block >= first_logical && block - first_logical < length;
    }
    std::uint64_t end() const { return first_logical + length; }
    bool overlaps(const ExtentRecord& other) const {
        return first_logical < other.end() && other.first_logical < end();
    }

    // The disk form; FILE_CORRUPT for a length the format can't store.
    void store(ExtentLeaf& leaf) const {
        const std::uint32_t largest = unwritten ? kLargestUnwrittenLength : kLargestWrittenLength;
        if (length > largest || first_logical > kLargestExtentKey) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        leaf.set_ee_block(static_cast<std::uint32_t>(first_logical));
        leaf.set_ee_start(first_physical);
        leaf.set_ee_len(static_cast<std::uint16_t>(unwritten ? length + ExtentsLocationProcessor::kUnwrittenBias
                                                             : length));
    }

    std::uint64_t first_logical = 0;
    std::uint64_t first_physical = 0;
    std::uint32_t length = 0;
    bool unwritten = false;
};

inline void ExtentNode::shift_entries(std::uint32_t at, std::int32_t count) {
    unsigned char* entry = reinterpret_cast<unsigned char*>(header) + kExtentRecordSize;
    const std::uint32_t total = entries();
    if (at > total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (count >= 0) {
        const std::uint32_t gap = static_cast<std::uint32_t>(count);
        if (gap > room()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        std::memmove(entry + (at + gap) * kExtentRecordSize, entry + at * kExtentRecordSize,
                     (total - at) * kExtentRecordSize);
        header->set_eh_entries(static_cast<std::uint16_t>(total + gap));
        return;
    }
    const std::uint32_t gone = static_cast<std::uint32_t>(-count);
    if (gone > total - at) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::memmove(entry + at * kExtentRecordSize, entry + (at + gone) * kExtentRecordSize,
                 (total - at - gone) * kExtentRecordSize);
    std::memset(entry + (total - gone) * kExtentRecordSize, 0, gone * kExtentRecordSize);
    header->set_eh_entries(static_cast<std::uint16_t>(total - gone));
}

}  // namespace extfs
