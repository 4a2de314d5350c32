#pragma once
// A block taken from the block allocator and not yet linked into a map.
// A map change takes every block it needs first and links them last; a
// guard that still holds its block when it goes gives the block back, so
// an error in the middle of a change leaves no block lost.
#include <cstdint>

#include "extfs/extfs_driver.h"

namespace extfs {

class PendingBlock {
public:
    explicit PendingBlock(ExtfsDriver* driver) : driver_(driver) {}
    ~PendingBlock();
    PendingBlock(const PendingBlock&) = delete;
    PendingBlock& operator=(const PendingBlock&) = delete;

    // Takes a block from the allocator; with `zero` its cached image is
    // zeroed through the first-write gate and marked dirty. FILE_CORRUPT
    // when the guard already holds one.
    std::uint64_t take(bool zero);
    // The block is linked now: the guard lets it go.
    void clear() { block_ = ExtfsDriver::kNoBlock; }
    bool holds() const { return block_ != ExtfsDriver::kNoBlock; }
    std::uint64_t block() const { return block_; }

private:
    ExtfsDriver* driver_;
    std::uint64_t block_ = ExtfsDriver::kNoBlock;
};

}  // namespace extfs
