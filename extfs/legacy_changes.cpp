// Changes of the classic block map. A new block and the indirect blocks
// above it are all taken before any pointer is written, so a full disk
// leaves the map as it was; a release gathers everything it will free and
// checks it before it zeroes a single pointer, so damage met on the way
// changes nothing.
#include <cstring>

#include "extfs/location_processor.h"
#include "extfs/pending_block.h"
#include "loader/common/raise.h"

namespace extfs {

namespace {

constexpr std::uint32_t kLevels = 4;  // the inode's array and three indirect levels
constexpr std::uint64_t kLargestPointer = 0xFFFFFFFFu;

// The pointers to follow for one logical block: the slot in `i_block`,
// then one index per indirect level.
struct MapPath {
    std::uint32_t depth = 0;
    std::uint64_t at[kLevels] = {};
};

MapPath SplitBlock(std::uint64_t block, std::uint64_t p) {
    MapPath path;
    if (block < LegacyLocationProcessor::kDirect) {
        path.depth = 1;
        path.at[0] = block;
        return path;
    }
    std::uint64_t rest = block - LegacyLocationProcessor::kDirect;
    if (rest < p) {
        path.depth = 2;
        path.at[0] = 12;
        path.at[1] = rest;
        return path;
    }
    rest -= p;
    if (rest < p * p) {
        path.depth = 3;
        path.at[0] = 13;
        path.at[1] = rest / p;
        path.at[2] = rest % p;
        return path;
    }
    rest -= p * p;
    if (rest >= p * p * p) Common::Raise(ERROR_TAG, Common::Failures::FILE_SEEK);
    path.depth = 4;
    path.at[0] = 14;
    path.at[1] = rest / (p * p);
    path.at[2] = (rest / p) % p;
    path.at[3] = rest % p;
    return path;
}

// One release over the map. The first pass gathers every block to free and
// checks each on the way; the second zeroes the pointers that the first
// found wholly inside the range.
class LegacyRelease {
public:
    LegacyRelease(ExtfsDriver* driver, ExtfsBlockWalk& walk, std::uint64_t first, std::uint64_t end)
        : driver_(driver), walk_(walk), first_(first), end_(end), p_(driver->pointers_per_block) {}

    void run(unsigned char* map, bool apply) {
        apply_ = apply;
        Common::le32* pointers = BlockPointers(map);
        // The direct pointers, one block each, then the three indirect trees.
        visit(pointers, LegacyLocationProcessor::kDirect, 0, 1, 0, 0, nullptr);
        std::uint64_t start = LegacyLocationProcessor::kDirect;
        std::uint64_t span = p_;
        for (std::uint32_t slot = 12; slot < LegacyLocationProcessor::kPointers; ++slot) {
            visit(pointers + slot, 1, start, span, slot - 12 + 1, 0, nullptr);
            start += span;
            span *= p_;
        }
    }
    BlockRangeList list;

private:
    // `count` pointers from logical block `start`, each over `span` blocks
    // with `below` levels of indirect blocks under it, the blocks they
    // point at being at `level` of the walk; `holder` is the block the
    // array lies in, null for the inode's own map.
    void visit(Common::le32* words, std::uint64_t count, std::uint64_t start, std::uint64_t span,
               std::uint32_t below, std::uint32_t level, BlockHandle* holder) {
        for (std::uint64_t n = 0; n < count; ++n) {
            const std::uint64_t from = start + n * span;
            if (from >= end_) return;
            if (from + span <= first_) continue;
            const std::uint32_t pointer = words[n].get();
            if (pointer == 0) continue;
            if (from >= first_ && from + span <= end_) {
                if (apply_) {
                    clear(words[n], holder);
                } else {
                    gather(pointer, below, level);
                }
                continue;
            }
            // Partly inside: only an indirect block can be, and its pointers are looked at one by one.
            BlockHandle inner = indirect(pointer, level);
            visit(BlockPointers(inner.data()), p_, from, span / p_, below - 1, level + 1, &inner);
        }
    }

    // `pointer` and everything under it.
    void gather(std::uint64_t pointer, std::uint32_t below, std::uint32_t level) {
        check(pointer);
        list.add(pointer);
        if (below == 0) return;
        BlockHandle inner = indirect(pointer, level);
        const Common::le32* words = BlockPointers(inner.data());
        for (std::uint64_t n = 0; n < p_; ++n) {
            if (words[n].get() != 0) gather(words[n].get(), below - 1, level + 1);
        }
    }

    BlockHandle indirect(std::uint64_t pointer, std::uint32_t level) {
        check(pointer);
        return walk_.level_block(pointer, level);
    }

    void check(std::uint64_t pointer) const {
        if (pointer < driver_->first_data_block || pointer >= driver_->blocks_count) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }

    void clear(Common::le32& word, BlockHandle* holder) {
        if (holder != nullptr) driver_->prepare_block_write(*holder);
        word.set(0);
        if (holder != nullptr) holder->set_dirty();
    }

    ExtfsDriver* driver_;
    ExtfsBlockWalk& walk_;
    std::uint64_t first_;
    std::uint64_t end_;
    std::uint64_t p_;
    bool apply_ = false;
};

}  // namespace

void LegacyLocationProcessor::init(unsigned char* map) { std::memset(map, 0, InodeRecord::kMapBytes); }

std::uint64_t LegacyLocationProcessor::allocate(unsigned char* map, std::uint64_t block, std::uint64_t& allocated,
                                                bool unwritten, ExtfsBlockWalk& walk) {
    if (unwritten) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    allocated = 0;
    const MapPath path = SplitBlock(block, driver->pointers_per_block);
    // The arrays along the path as far as pointers exist; the map itself first.
    BlockHandle holders[kLevels];
    Common::le32* arrays[kLevels] = {BlockPointers(map)};
    std::uint32_t missing = 0;
    for (; missing < path.depth; ++missing) {
        const std::uint32_t pointer = arrays[missing][path.at[missing]].get();
        if (pointer == 0) break;
        if (missing + 1 == path.depth) return pointer;
        holders[missing + 1] = walk.level_block(pointer, missing);
        arrays[missing + 1] = BlockPointers(holders[missing + 1].data());
    }
    PendingBlock pending[kLevels] = {PendingBlock(driver), PendingBlock(driver), PendingBlock(driver),
                                     PendingBlock(driver)};
    for (std::uint32_t level = missing; level < path.depth; ++level) {
        // Indirect blocks start as holes everywhere; the data block is the caller's to fill.
        const std::uint64_t taken = pending[level].take(level + 1 < path.depth);
        if (taken > kLargestPointer) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
        ++allocated;
    }
    // Every block is in hand: now the pointers, top down.
    for (std::uint32_t level = missing; level < path.depth; ++level) {
        BlockHandle& holder = holders[level];
        if (level > missing) holder = driver->get_fs_block(pending[level - 1].block(), false);
        Common::le32* words = level == 0 ? BlockPointers(map) : BlockPointers(holder.data());
        if (level > 0) driver->prepare_block_write(holder);
        words[path.at[level]].set(static_cast<std::uint32_t>(pending[level].block()));
        if (level > 0) holder.set_dirty();
    }
    const std::uint64_t data = pending[path.depth - 1].block();
    for (PendingBlock& guard : pending) guard.clear();
    return data;
}

std::uint64_t LegacyLocationProcessor::release(unsigned char* map, std::uint64_t first, std::uint64_t count,
                                               ExtfsBlockWalk& walk) {
    if (count == 0) return 0;
    const std::uint64_t end = count > max_blocks() - first ? max_blocks() : first + count;
    LegacyRelease release(driver, walk, first, end);
    release.run(map, false);
    release.run(map, true);
    free_blocks(release.list, walk);
    return release.list.total();
}

}  // namespace extfs
