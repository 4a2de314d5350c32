#pragma once
#include <cstdint>
#include <vector>

#include "extfs/extfs_driver.h"
#include "fsdriver/block_handle.h"

namespace extfs {

// The last block read at each level of one inode's map, so that a
// sequential read doesn't fetch or search the same indirect or index block
// again.
class ExtfsBlockWalk {
public:
    ExtfsBlockWalk(ExtfsDriver* driver, std::uint32_t levels) : driver_(driver), levels_(levels) {}

    // The block `block` as the node of level `level`; FILE_CORRUPT for a
    // level the map can't have.
    const BlockHandle& level_block(std::uint64_t block, std::uint32_t level);
    // Empties every slot whose block lies in [first, end).
    void forget(std::uint64_t first, std::uint64_t end);

private:
    struct Slot {
        BlockHandle handle;
        std::uint64_t block = ExtfsDriver::kNoBlock;
    };
    ExtfsDriver* driver_;
    std::uint32_t levels_;
    std::vector<Slot> slots_;
};

}  // namespace extfs
