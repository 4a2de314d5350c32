#pragma once
// Where a logical block of an inode lies. Two stateless readers of the
// 60 bytes of `i_block`, shared by all inodes of a volume: the classic map
// of direct and indirect pointers, and the extent tree. Each answers the
// physical block and how many logical blocks from there behave alike, so a
// file is read in runs. A hole is the block number kNoBlock.
//
// Both walks are bounded by the depth of their format, and every block
// number they meet goes through the driver's range check before it is read,
// so a damaged map can raise FILE_CORRUPT but can't loop or read wild.
#include <cstdint>

#include "extfs/block_range_list.h"
#include "extfs/block_walk.h"
#include "extfs/extfs_driver.h"

namespace extfs {

class InodeLocationProcessor {
public:
    explicit InodeLocationProcessor(ExtfsDriver* driver) : driver(driver) {}
    virtual ~InodeLocationProcessor() = default;
    InodeLocationProcessor(const InodeLocationProcessor&) = delete;
    InodeLocationProcessor& operator=(const InodeLocationProcessor&) = delete;

    // One past the last logical block the map can address.
    virtual std::uint64_t max_blocks() const = 0;
    // Levels of blocks below the inode.
    virtual std::uint32_t max_depth() const = 0;
    // The first block the map points at, 0 for none.
    virtual std::uint64_t first_block(const unsigned char* map) = 0;
    // The physical block of logical block `block`, or kNoBlock for a hole;
    // `count` blocks from `block` on are mapped contiguously, or are a hole.
    virtual std::uint64_t locate(const unsigned char* map, std::uint64_t block, std::uint64_t& count,
                                 bool& unwritten, ExtfsBlockWalk& walk) = 0;

    // --- changes; each leaves the map as it was when it raises ---
    // An empty map.
    virtual void init(unsigned char* map) = 0;
    // Maps logical `block` to a block of its own and answers that physical
    // block; a block already mapped (and, for extents, in the wanted
    // written state) is answered as it is. `allocated` counts every block
    // taken, data and map blocks together.
    virtual std::uint64_t allocate(unsigned char* map, std::uint64_t block, std::uint64_t& allocated,
                                   bool unwritten, ExtfsBlockWalk& walk) = 0;
    // Unmaps the logical blocks [first, first + count) and frees every
    // block that only they used, map blocks included. Answers how many
    // blocks went back to the allocator.
    virtual std::uint64_t release(unsigned char* map, std::uint64_t first, std::uint64_t count,
                                  ExtfsBlockWalk& walk) = 0;
    // Gives the gathered blocks back, in ascending order, after the walk
    // has let go of any of them it held.
    void free_blocks(const BlockRangeList& list, ExtfsBlockWalk& walk);

protected:
    ExtfsDriver* driver;
};

// Twelve direct pointers, then one single, one double and one triple
// indirect block.
class LegacyLocationProcessor : public InodeLocationProcessor {
public:
    static constexpr std::uint32_t kDirect = 12;
    static constexpr std::uint32_t kPointers = 15;

    using InodeLocationProcessor::InodeLocationProcessor;
    std::uint64_t max_blocks() const override;
    std::uint32_t max_depth() const override { return 3; }
    std::uint64_t first_block(const unsigned char* map) override;
    std::uint64_t locate(const unsigned char* map, std::uint64_t block, std::uint64_t& count, bool& unwritten,
                         ExtfsBlockWalk& walk) override;
    void init(unsigned char* map) override;
    std::uint64_t allocate(unsigned char* map, std::uint64_t block, std::uint64_t& allocated, bool unwritten,
                           ExtfsBlockWalk& walk) override;
    std::uint64_t release(unsigned char* map, std::uint64_t first, std::uint64_t count, ExtfsBlockWalk& walk) override;
};

// The ext4 extent tree: a 12-byte header and up to 4 entries in `i_block`,
// whole blocks below, at most 16 levels in all. Logical blocks are 32 bits.
class ExtentsLocationProcessor : public InodeLocationProcessor {
public:
    static constexpr std::uint32_t kMaxDepth = 16;
    static constexpr std::uint32_t kUnwrittenBias = 0x8000;

    using InodeLocationProcessor::InodeLocationProcessor;
    std::uint64_t max_blocks() const override { return 0x100000000ull; }
    std::uint32_t max_depth() const override { return kMaxDepth; }
    std::uint64_t first_block(const unsigned char* map) override;
    std::uint64_t locate(const unsigned char* map, std::uint64_t block, std::uint64_t& count, bool& unwritten,
                         ExtfsBlockWalk& walk) override;
    void init(unsigned char* map) override;
    std::uint64_t allocate(unsigned char* map, std::uint64_t block, std::uint64_t& allocated, bool unwritten,
                           ExtfsBlockWalk& walk) override;
    std::uint64_t release(unsigned char* map, std::uint64_t first, std::uint64_t count, ExtfsBlockWalk& walk) override;
};

}  // namespace extfs
