#include "extfs/pending_block.h"

#include <cstring>

#include "extfs/block_allocator.h"
#include "loader/common/raise.h"

namespace extfs {

PendingBlock::~PendingBlock() {
    if (!holds()) return;
    // Giving back can't fail for a block just taken, but a destructor
    // mustn't throw whatever happens: the block is then merely lost.
    try {
        driver_->block_allocator().free(block_, 0);
    } catch (...) {
    }
}

std::uint64_t PendingBlock::take(bool zero) {
    if (holds()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    block_ = driver_->block_allocator().allocate(0);
    if (zero) {
        BlockHandle handle = driver_->get_fs_block(block_, true);
        driver_->prepare_block_write(handle);
        std::memset(handle.data(), 0, driver_->block_size());
        handle.set_dirty();
    }
    return block_;
}

}  // namespace extfs
