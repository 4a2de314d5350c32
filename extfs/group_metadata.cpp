#include "extfs/group_metadata.h"

#include <algorithm>

#include "extfs/extfs_driver.h"

namespace extfs {

namespace {

// One group's blocks as bits, for marks given by block number.
class GroupBits {
public:
    GroupBits(unsigned char* bits, std::uint64_t first, std::uint32_t count)
        : bits_(bits), first_(first), count_(count) {}

    // Marks the part of [start, start + length) that lies in the group.
    void mark(std::uint64_t start, std::uint64_t length) {
        const std::uint64_t group_end = first_ + count_;
        if (start >= group_end || length == 0) return;
        const std::uint64_t stop = length > group_end - start ? group_end : start + length;
        for (std::uint64_t block = std::max(start, first_); block < stop; ++block) {
            const std::uint64_t bit = block - first_;
            bits_[bit / 8] = static_cast<unsigned char>(bits_[bit / 8] | 1u << (bit % 8));
        }
    }

private:
    unsigned char* bits_;
    std::uint64_t first_;
    std::uint32_t count_;
};

// The copies at the group's start: the superblock, then the descriptor
// table as the first group holds it, then the reserved blocks that let
// it grow. With META_BG the table is cut at its first meta group, and
// each meta group's block has three copies of its own: in the first, the
// second and the last group of the run, behind a superblock copy if any.
void MarkDescriptorCopies(const ExtfsDriver& driver, std::uint32_t group, GroupBits& bits, std::uint64_t first) {
    const std::uint32_t super = driver.has_super(group);
    if (super != 0) {
        bits.mark(first, 1);
        bits.mark(first + 1, driver.descriptor_blocks);
        bits.mark(first + 1 + driver.descriptor_blocks, driver.superblock.s_reserved_gdt_blocks_.get());
    }
    if (!driver.has_incompat(kIncompatMetaBg)) return;
    const std::uint32_t per_block = driver.block_size() / driver.descriptor_size;
    if (group / per_block < driver.descriptor_blocks) return;
    const std::uint32_t place = group % per_block;
    if (place == 0 || place == 1 || place == per_block - 1) bits.mark(first + super, 1);
}

}  // namespace

void MarkGroupMetadata(const ExtfsDriver& driver, std::uint32_t group, unsigned char* bits, std::uint32_t count) {
    const std::uint64_t first = std::uint64_t(driver.first_data_block) + std::uint64_t(group) * driver.blocks_per_group;
    GroupBits marks(bits, first, count);
    MarkDescriptorCopies(driver, group, marks, first);
    // Any group's bitmaps and table may lie here: FLEX_BG packs them into
    // the first group of a run, and a resize may move them. So every
    // descriptor is asked, which a group pays once per mount at most.
    for (std::uint32_t other = 0; other < driver.groups; ++other) {
        const GroupDescriptor entry = driver.descriptor(other);
        marks.mark(entry.bg_block_bitmap(), 1);
        marks.mark(entry.bg_inode_bitmap(), 1);
        marks.mark(entry.bg_inode_table(), driver.inode_table_blocks);
    }
}

}  // namespace extfs
