// The volume-wide numbers that new objects take, and the one kind of
// feature change the write path makes: a read-only-compatible bit that a
// new count or size needs.
#include "extfs/descriptor_updates.h"
#include "extfs/extfs_allocation.h"
#include "extfs/extfs_driver.h"

namespace extfs {

namespace {

constexpr std::uint16_t kDefaultExtraIsize = 28;  // room for the times' extra fields and i_crtime

}  // namespace

bool ExtfsDriver::set_ro_feature(std::uint32_t bit) {
    if (has_ro_compat(bit)) return true;
    // A large file only says that sizes may pass 2 GiB; a link count beyond
    // the field and block counts in file-system units belong to ext4.
    const bool allowed = bit == kRoCompatLargeFile ||
                         (volume_type == kExt4 && (bit == kRoCompatDirNlink || bit == kRoCompatHugeFile));
    if (!allowed) return false;
    block_allocator();  // refuses on a volume held read only, before anything changes
    superblock.set_ro_compat(bit);
    allocation->descriptors().mark_superblock_dirty();
    return true;
}

std::uint16_t ExtfsDriver::extra_isize() const {
    if (inode_size == InodeRecord::kBaseSize || volume_type != kExt4) return 0;
    if (has_ro_compat(kRoCompatExtraIsize)) return superblock.s_want_extra_isize();
    return kDefaultExtraIsize;
}

std::uint16_t ExtfsDriver::max_links() const { return volume_type == kExt4 ? 65000 : 32000; }

}  // namespace extfs
