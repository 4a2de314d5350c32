#pragma once
// The group descriptors and the superblock as allocation changes them. The
// driver keeps every descriptor in memory from the mount on; a change
// stays there, marked dirty, until `flush` copies the dirty descriptors
// and the superblock over their places in the cached blocks, for the next
// flush of blocks to write. Only the primary superblock and the primary
// descriptors are written: the backups stay as they were.
#include <cstdint>
#include <vector>

#include "extfs/ext_records.h"

namespace extfs {

class ExtfsDriver;

// The counts of a descriptor, joined and split by their high halves, which
// count only on a volume with 64-bit block numbers.
struct DescriptorCounts {
    static std::uint32_t free_blocks(const GroupDescriptor& entry, bool wide);
    static std::uint32_t free_inodes(const GroupDescriptor& entry, bool wide);
    static std::uint32_t used_dirs(const GroupDescriptor& entry, bool wide);
    static std::uint32_t itable_unused(const GroupDescriptor& entry, bool wide);
    static void set_free_blocks(GroupDescriptor& entry, std::uint32_t value, bool wide);
    static void set_free_inodes(GroupDescriptor& entry, std::uint32_t value, bool wide);
    static void set_used_dirs(GroupDescriptor& entry, std::uint32_t value, bool wide);
    static void set_itable_unused(GroupDescriptor& entry, std::uint32_t value, bool wide);
    static void clear_flag(GroupDescriptor& entry, std::uint16_t flag);
};

class DescriptorUpdates {
public:
    explicit DescriptorUpdates(ExtfsDriver* driver);

    // Changes the descriptor of `group` in memory: `edit` gets a copy, the
    // copy goes back, and the group is marked for the flush. FILE_CORRUPT
    // for a group the volume hasn't.
    template <typename Edit>
    void change(std::uint32_t group, Edit edit) {
        GroupDescriptor entry = read(group);
        edit(entry);
        write(group, entry);
    }
    bool wide() const;
    bool pending() const { return superblock_dirty_; }
    // A change of the superblock's own fields, for the next flush.
    void mark_superblock_dirty() { superblock_dirty_ = true; }

    // Each dirty descriptor gets a fresh checksum and goes into its block;
    // the superblock then takes the free counts summed over all groups.
    // Nothing happens when nothing changed.
    void flush();

private:
    GroupDescriptor read(std::uint32_t group) const;
    void write(std::uint32_t group, const GroupDescriptor& entry);
    void flush_descriptor(std::uint32_t group);
    void flush_superblock();

    ExtfsDriver* driver_;
    std::vector<unsigned char> dirty_groups_;  // one flag a group
    bool superblock_dirty_ = false;
};

}  // namespace extfs
