#include "fsdriver/block_handle.h"

#include "fsdriver/cached_block.h"
#include "fsdriver/file_system_driver.h"

BlockHandle::BlockHandle(const BlockHandle& other) : block_(other.block_) {
    if (block_ != nullptr) ++block_->holds;
}

BlockHandle& BlockHandle::operator=(const BlockHandle& other) {
    if (other.block_ != nullptr) ++other.block_->holds;
    reset();
    block_ = other.block_;
    return *this;
}

BlockHandle& BlockHandle::operator=(BlockHandle&& other) noexcept {
    if (this != &other) {
        reset();
        block_ = other.block_;
        other.block_ = nullptr;
    }
    return *this;
}

void BlockHandle::reset() {
    CachedBlock* block = block_;
    block_ = nullptr;
    if (block != nullptr) block->owner->release_block(block);
}

unsigned char* BlockHandle::data() const { return block_->data(); }

std::uint64_t BlockHandle::first() const { return block_->first; }

std::uint32_t BlockHandle::count() const { return block_->count; }

bool BlockHandle::dirty() const { return block_->dirty != 0; }

void BlockHandle::set_dirty() { block_->dirty = 1; }
