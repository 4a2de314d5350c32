// The mount. The trial of drivers hands this constructor volumes of every
// kind, and damaged ones too, so each superblock field is checked before
// anything is sized or indexed by it; the refusal code tells damage
// (FILE_CORRUPT) from a format this driver doesn't serve (FILE_UNSUPPORTED).
#include <algorithm>
#include <cstring>
#include <new>

#include "extfs/descriptor_checksum.h"
#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "extfs/location_processor.h"
#include "files/utf_conversion.h"
#include "fsdriver/directory_object.h"

namespace extfs {

namespace {

constexpr std::uint32_t kMaxLogBlockSize = 6;
constexpr std::uint32_t kRevisionDynamic = 1;
constexpr std::uint32_t kRevisionZeroFirstInodeIndex = 10;  // inode 11
constexpr std::uint32_t kReservedInodes = 10;               // s_first_ino must lie above them
constexpr std::uint32_t kExt4RoCompat = 0x78;
constexpr std::uint32_t kExt4Incompat = 0x3C0;
constexpr std::uint32_t kExt4LogBlockSize = 4;  // 16 KiB blocks and more
constexpr std::uint32_t kMinWideDescriptor = 0x40;
constexpr std::uint32_t kMaxWideDescriptor = 0x400;

bool PowerOf(std::uint32_t value, std::uint32_t base) {
    if (value == 0) return false;
    while (value % base == 0) value /= base;
    return value == 1;
}

}  // namespace

ExtfsDriver::ExtfsDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                         std::uint32_t cache_group, const unsigned char* inode_filter, std::uint64_t inode_filter_size)
    : FileSystemDriverPosix(device, first_sector, volume_sectors, cache_group) {
    if (inode_filter != nullptr && inode_filter_size != 0) {
        this->inode_filter = inode_filter;
        this->inode_filter_size = inode_filter_size;
        read_only = true;
    }
    inode_cache = std::make_unique<ExtfsInodeCache>(this);
    read_superblock();
    check_features();
    read_geometry();
    check_group_layout();
    check_counts();
    volume_label = utf8_to_utf16(reinterpret_cast<const char*>(superblock.s_volume_name()), 16);
    load_descriptors();
}

ExtfsDriver::~ExtfsDriver() {
    dismount();
    // Directory objects hold inodes and cached blocks, so they go before
    // the inode cache and before the base frees the blocks.
    for (auto& entry : directories) delete entry.second;
    directories.clear();
    extents_processor.reset();
    legacy_processor.reset();
    inode_cache.reset();
}

void ExtfsDriver::read_superblock() {
    if (sector_size == 0 || (sector_size & (sector_size - 1)) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    copy_superblock();
    if (superblock.s_magic() != Superblock::kMagic) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (superblock.has_incompat(kIncompatRecover)) {
        // Only a device that shows the journal applied could serve, and
        // only ext3 and ext4 have journals; the request raises when there
        // is none.
        install_recovery_device(*this, 1u << kExt4 | 1u << kExt3);
        copy_superblock();
        if (superblock.s_magic() != Superblock::kMagic) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        superblock.clear_incompat(kIncompatRecover);
    }
}

void ExtfsDriver::copy_superblock() {
    // The memory copy is what the driver reads from now on. The sectors
    // that hold it needn't match the grid of file-system blocks, so they
    // are read as a byte range, which keeps no block of that other grid.
    read_volume_bytes(Superblock::kOffset, &superblock, sizeof(superblock));
}

void ExtfsDriver::check_features() {
    if ((superblock.s_feature_incompat() & ~kIncompatServed) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    if (superblock.s_rev_level() > kRevisionDynamic) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (superblock.s_creator_os() != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    // Read-only compatible features that the driver doesn't know can be
    // read past, but anything it wrote could break them.
    if ((superblock.s_feature_ro_compat() & ~kRoCompatServed) != 0) read_only = true;
    if (superblock.s_log_block_size() > kMaxLogBlockSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    volume_type = (superblock.s_feature_compat() & kCompatHasJournal) != 0 ? kExt3 : kExt2;
    if ((superblock.s_feature_ro_compat() & kExt4RoCompat) != 0 ||
        (superblock.s_feature_incompat() & kExt4Incompat) != 0 || superblock.s_log_block_size() >= kExt4LogBlockSize) {
        volume_type = kExt4;
    }
}

void ExtfsDriver::read_geometry() {
    const std::uint32_t size = block_size();
    if (size % sector_size != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    sectors_per_block = size / sector_size;
    block_shift = superblock.s_log_block_size() + 1;
    pointers_per_block = size / 4;
    blocks_count = superblock.blocks_count();
    if (blocks_count == 0 || blocks_count > volume_sectors / sectors_per_block) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (has_incompat(kIncompat64Bit)) {
        descriptor_size = superblock.s_desc_size();
        if (descriptor_size < kMinWideDescriptor || descriptor_size > kMaxWideDescriptor) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        if (size % descriptor_size != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    bool dynamic = superblock.s_rev_level() == kRevisionDynamic;
    if (dynamic) {
        if (superblock.s_first_ino() <= kReservedInodes) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        first_inode_index = superblock.s_first_ino() - 1;
    } else {
        first_inode_index = kRevisionZeroFirstInodeIndex;
    }
    blocks_per_group = superblock.s_blocks_per_group();
    inodes_per_group = superblock.s_inodes_per_group();
    if (blocks_per_group == 0 || inodes_per_group == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (blocks_per_group > 8 * size || inodes_per_group > 8 * size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    inode_size = dynamic ? superblock.s_inode_size() : InodeRecord::kBaseSize;
    if (inode_size < InodeRecord::kBaseSize || size % inode_size != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    // Revision 0 has no inode size field, but mke2fs writes the fixed one
    // there all the same. A revision 0 superblock that states another
    // describes inode tables laid out otherwise (a revision 1 volume whose
    // revision was changed): read as 128-byte inodes, every inode would be
    // taken from the wrong bytes, the root first.
    if (!dynamic && superblock.s_inode_size() != 0 && superblock.s_inode_size() != inode_size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (has_ro_compat(kRoCompatExtraIsize)) {
        if (superblock.s_want_extra_isize() < superblock.s_min_extra_isize()) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        if (superblock.s_want_extra_isize() + InodeRecord::kBaseSize > inode_size) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
    inodes_per_block = size / inode_size;
    if (inodes_per_group % inodes_per_block != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    inode_table_blocks = inodes_per_group / inodes_per_block;
    if (inode_table_blocks == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void ExtfsDriver::check_group_layout() {
    const std::uint32_t size = block_size();
    first_data_block = superblock.s_first_data_block();
    if (first_data_block >= blocks_count) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint64_t group_count = (blocks_count - 1 - first_data_block) / blocks_per_group + 1;
    inodes_count = superblock.s_inodes_count();
    if (std::uint64_t(inodes_per_group) * group_count != inodes_count) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (inodes_count <= first_inode_index) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    groups = static_cast<std::uint32_t>(group_count);
    const std::uint32_t per_block = size / descriptor_size;
    descriptor_blocks = (groups - 1) / per_block + 1;
    if (has_incompat(kIncompatMetaBg)) {
        if (descriptor_blocks < superblock.s_first_meta_bg()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        descriptor_blocks = superblock.s_first_meta_bg();
    }
    std::uint64_t room = std::min<std::uint64_t>(blocks_count - first_data_block, blocks_per_group);
    if (room <= std::max<std::uint64_t>(std::uint64_t(inode_table_blocks) + 4, descriptor_blocks)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (has_incompat(kIncompatFlexBg) && superblock.s_log_groups_per_flex() >= 32) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (first_data_block != (size == 1024 ? 1u : 0u)) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    // Clusters bigger than a block (bigalloc) show as a fragment size of their own.
    if (superblock.s_log_frag_size() != superblock.s_log_block_size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    if (superblock.s_frags_per_group() != blocks_per_group) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
}

void ExtfsDriver::check_counts() {
    free_inodes = superblock.s_free_inodes_count();
    if (free_inodes > inodes_count - first_inode_index) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    free_blocks = superblock.free_blocks_count();
    if (free_blocks >= blocks_count || superblock.r_blocks_count() >= blocks_count) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

void ExtfsDriver::load_descriptors() {
    const std::uint64_t table_size = std::uint64_t(groups) * descriptor_size;
    try {
        descriptors.assign(static_cast<std::size_t>(table_size), 0);
    } catch (const std::bad_alloc&) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
    const std::uint32_t size = block_size();
    std::uint64_t offset = 0;
    for (std::uint32_t i = 0; i < descriptor_blocks && offset < table_size; ++i, offset += size) {
        copy_descriptor_block(std::uint64_t(first_data_block) + 1 + i, offset);
    }
    // With META_BG the rest lies in the first group of each run of groups
    // whose descriptors fill one block, behind its superblock copy.
    const std::uint32_t per_block = size / descriptor_size;
    for (std::uint64_t g = std::uint64_t(descriptor_blocks) * per_block; offset < table_size; g += per_block) {
        std::uint32_t group = static_cast<std::uint32_t>(g);
        copy_descriptor_block(g * blocks_per_group + first_data_block + has_super(group), offset);
        offset += size;
    }
    if (has_ro_compat(kRoCompatGdtCsum)) check_descriptor_checksums();
}

void ExtfsDriver::copy_descriptor_block(std::uint64_t block, std::uint64_t offset) {
    BlockHandle handle = get_fs_block(block, false);
    std::uint64_t length = std::min<std::uint64_t>(block_size(), descriptors.size() - offset);
    std::memcpy(descriptors.data() + offset, handle.data(), static_cast<std::size_t>(length));
}

void ExtfsDriver::check_descriptor_checksums() const {
    const bool wide = has_incompat(kIncompat64Bit);
    for (std::uint32_t group = 0; group < groups; ++group) {
        const unsigned char* bytes = descriptors.data() + std::size_t(group) * descriptor_size;
        std::uint16_t expected = DescriptorChecksum(superblock.s_uuid(), group, bytes, descriptor_size, wide);
        if (descriptor(group).bg_checksum() != expected) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

std::uint32_t ExtfsDriver::has_super(std::uint32_t group) const {
    if (!has_ro_compat(kRoCompatSparseSuper) || group <= 1) return 1;
    return PowerOf(group, 3) || PowerOf(group, 5) || PowerOf(group, 7) ? 1 : 0;
}

}  // namespace extfs
