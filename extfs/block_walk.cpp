#include "extfs/block_walk.h"

#include "loader/common/raise.h"

namespace extfs {

const BlockHandle& ExtfsBlockWalk::level_block(std::uint64_t block, std::uint32_t level) {
    if (level >= levels_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (slots_.size() <= level) slots_.resize(level + 1);
    Slot& slot = slots_[level];
    if (slot.block != block || !slot.handle) {
        slot.handle = driver_->get_fs_block(block, false);
        slot.block = block;
    }
    return slot.handle;
}

void ExtfsBlockWalk::forget(std::uint64_t first, std::uint64_t end) {
    for (Slot& slot : slots_) {
        if (slot.block >= first && slot.block < end) {
            slot.handle.reset();
            slot.block = ExtfsDriver::kNoBlock;
        }
    }
}

}  // namespace extfs
