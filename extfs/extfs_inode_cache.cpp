#include "extfs/extfs_inode_cache.h"

#include "loader/common/raise.h"

namespace extfs {

InodeRef::InodeRef(const InodeRef& other) : inode_(other.inode_) {
    if (inode_ != nullptr) ++inode_->references;
}

InodeRef& InodeRef::operator=(InodeRef other) noexcept {
    std::swap(inode_, other.inode_);
    return *this;
}

void InodeRef::reset() {
    if (inode_ == nullptr) return;
    ExtfsInode* inode = inode_;
    inode_ = nullptr;
    inode->cache->release(inode);
}

ExtfsInodeCache::~ExtfsInodeCache() {
    while (!inodes_.empty()) delete inodes_.begin()->second;
}

InodeRef ExtfsInodeCache::open(std::uint32_t index) {
    if (index >= driver_->inodes_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    auto found = inodes_.find(index);
    if (found != inodes_.end()) {
        lru_.move_to_head(found->second);
        ++found->second->references;
        return InodeRef(found->second);
    }
    if (count >= kIdleLimit) trim();
    auto* inode = new ExtfsInode(driver_, this, index);
    lru_.push_head(inode);
    inodes_[index] = inode;
    ++count;
    ++inode->references;
    return InodeRef(inode);
}

void ExtfsInodeCache::release(ExtfsInode* inode) {
    if (inode->references > 0) --inode->references;
}

void ExtfsInodeCache::forget(ExtfsInode* inode) {
    auto found = inodes_.find(inode->index);
    if (found == inodes_.end() || found->second != inode) return;
    inodes_.erase(found);
    inode->LRUList<ExtfsInode>::unlink();
    --count;
}

void ExtfsInodeCache::trim() {
    ExtfsInode* inode = lru_.tail();
    while (inode != nullptr && count >= kIdleLimit) {
        ExtfsInode* before = lru_.before(inode);
        if (inode->references == 0) delete inode;
        inode = before;
    }
}

}  // namespace extfs
