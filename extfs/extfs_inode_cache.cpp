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
    return enter(new ExtfsInode(driver_, this, index));
}

InodeRef ExtfsInodeCache::enter(ExtfsInode* inode) {
    lru_.push_head(inode);
    inodes_.emplace(inode->index, inode);
    ++count;
    ++inode->references;
    return InodeRef(inode);
}

InodeRef ExtfsInodeCache::create(std::uint32_t index, const ExtfsInode::NewInode& made) {
    // The allocator has just handed the index out: an inode of it in memory
    // would be one that the bitmap doesn't know, and two objects of one inode.
    if (index >= driver_->inodes_count || inodes_.find(index) != inodes_.end()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (count >= kIdleLimit) trim();
    return enter(new ExtfsInode(driver_, this, index, made));
}

void ExtfsInodeCache::flush_all() {
    for (ExtfsInode* inode = lru_.head(); inode != nullptr; inode = lru_.after(inode)) inode->flush();
}

void ExtfsInodeCache::release(ExtfsInode* inode) {
    if (inode->references > 0) --inode->references;
    // An inode without names is kept only while someone still uses it.
    if (inode->references == 0 && inode->record().i_links_count() == 0) delete inode;
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
