#pragma once
// The inodes of one volume in memory, most recently used first. Inodes
// that nobody holds stay for later use, up to a small limit; an inode that
// is held is never dropped, so the cache can grow past the limit while
// many are open.
#include <cstdint>
#include <map>

#include "extfs/extfs_inode.h"
#include "fsdriver/lru_list.h"

namespace extfs {

class ExtfsInodeCache;

// A counted hold on one inode of the cache; the last hold going leaves
// the inode cached, without references.
class InodeRef {
public:
    InodeRef() = default;
    // Takes over a reference that the cache has already counted.
    explicit InodeRef(ExtfsInode* adopted) : inode_(adopted) {}
    InodeRef(const InodeRef& other);
    InodeRef(InodeRef&& other) noexcept : inode_(other.inode_) { other.inode_ = nullptr; }
    InodeRef& operator=(InodeRef other) noexcept;
    ~InodeRef() { reset(); }

    void reset();
    ExtfsInode* operator->() const { return inode_; }
    ExtfsInode& operator*() const { return *inode_; }
    ExtfsInode* get() const { return inode_; }
    explicit operator bool() const { return inode_ != nullptr; }

private:
    ExtfsInode* inode_ = nullptr;
};

class ExtfsInodeCache {
public:
    static constexpr std::uint32_t kIdleLimit = 32;

    explicit ExtfsInodeCache(ExtfsDriver* driver) : driver_(driver) {}
    ~ExtfsInodeCache();
    ExtfsInodeCache(const ExtfsInodeCache&) = delete;
    ExtfsInodeCache& operator=(const ExtfsInodeCache&) = delete;

    // The inode of `index`, read on a miss. FILE_CORRUPT for an index the
    // volume hasn't, FILE_OPEN for a freed inode.
    InodeRef open(std::uint32_t index);
    // A new inode of `index`, which the inode allocator has just handed
    // out. FILE_CORRUPT for an index the volume hasn't or one in the cache.
    InodeRef create(std::uint32_t index, const ExtfsInode::NewInode& made);
    // Every inode, from the most recently used one on, writes itself.
    void flush_all();
    // One reference less; called by InodeRef only. An inode that lost its
    // last name goes with its last reference.
    void release(ExtfsInode* inode);
    // Takes an inode off the books; called by its destructor.
    void forget(ExtfsInode* inode);

    std::uint32_t count = 0;

private:
    // Puts a new inode at the head, held once.
    InodeRef enter(ExtfsInode* inode);
    // Drops unheld inodes from the least recently used end, down to the limit.
    void trim();

    ExtfsDriver* driver_;
    LRUList<ExtfsInode> lru_;
    std::map<std::uint32_t, ExtfsInode*> inodes_;
};

}  // namespace extfs
