#pragma once
// Inodes, by index (the inode number minus 1). The reserved inodes lie
// below the first inode index and are never handed out. A group that
// GDT_CSUM marks INODE_UNINIT has never had its inode bitmap written: the
// bitmap is made fresh, with no inode in use.
#include "extfs/object_allocator.h"

namespace extfs {

class DescriptorUpdates;

class ExtfsInodeAllocator : public ExtfsObjectAllocator {
public:
    static constexpr std::uint16_t kInodeUninit = 1;
    static constexpr std::uint32_t kDirectoryKind = 128;  // moves the group's count of directories

    ExtfsInodeAllocator(ExtfsDriver* driver, DescriptorUpdates* updates);

protected:
    BlockHandle load_bitmap(std::uint32_t group) override;
    std::uint32_t recorded_free(std::uint32_t group) const override;
    void update_group(std::uint32_t group, bool allocated, std::uint32_t free_count, std::uint32_t bit,
                      std::uint32_t kind) override;

private:
    DescriptorUpdates* updates_;
};

}  // namespace extfs
