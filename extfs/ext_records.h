#pragma once
// The on-disk records of ext2, ext3 and ext4, as the published format lays
// them out: little-endian, packed, one struct per record.
//
// Naming: a field is its published name with a trailing underscore
// (`s_magic_`), and holds the bytes as the disk does. The method of the
// published name (`s_magic()`) converts at each access; a method without a
// published name joins the halves of one value (`blocks_count()`). Nothing
// outside a record reads a raw field, and every value a method answers is
// as the disk holds it: the caller checks it before it indexes or sizes
// anything with it.
#include <cstddef>
#include <cstdint>

#include "loader/common/byte_order.h"

namespace extfs {

// Feature bits that the driver looks at.
constexpr std::uint32_t kCompatHasJournal = 0x4;
constexpr std::uint32_t kIncompatFiletype = 0x2;
constexpr std::uint32_t kIncompatRecover = 0x4;
constexpr std::uint32_t kIncompatMetaBg = 0x10;
constexpr std::uint32_t kIncompatExtents = 0x40;
constexpr std::uint32_t kIncompat64Bit = 0x80;
constexpr std::uint32_t kIncompatFlexBg = 0x200;
constexpr std::uint32_t kIncompatServed = 0x2D6;
constexpr std::uint32_t kRoCompatSparseSuper = 0x1;
constexpr std::uint32_t kRoCompatLargeFile = 0x2;
constexpr std::uint32_t kRoCompatHugeFile = 0x8;
constexpr std::uint32_t kRoCompatGdtCsum = 0x10;
constexpr std::uint32_t kRoCompatDirNlink = 0x20;
constexpr std::uint32_t kRoCompatExtraIsize = 0x40;
constexpr std::uint32_t kRoCompatServed = 0x7B;

// The superblock: 1024 bytes at byte 1024 of the volume. Where ext2 and
// ext4 name a field differently, the ext2 name stands when the driver
// reads the field in its ext2 sense (`s_log_frag_size`, `s_frags_per_group`).
struct Superblock {
    static constexpr std::uint64_t kOffset = 1024;
    static constexpr std::uint16_t kMagic = 0xEF53;

    Common::le32 s_inodes_count_;
    Common::le32 s_blocks_count_lo_;
    Common::le32 s_r_blocks_count_lo_;
    Common::le32 s_free_blocks_count_lo_;
    Common::le32 s_free_inodes_count_;
    Common::le32 s_first_data_block_;
    Common::le32 s_log_block_size_;
    Common::le32 s_log_frag_size_;
    Common::le32 s_blocks_per_group_;
    Common::le32 s_frags_per_group_;
    Common::le32 s_inodes_per_group_;
    Common::le32 s_mtime_;
    Common::le32 s_wtime_;
    Common::le16 s_mnt_count_;
    Common::le16 s_max_mnt_count_;
    Common::le16 s_magic_;
    Common::le16 s_state_;
    Common::le16 s_errors_;
    Common::le16 s_minor_rev_level_;
    Common::le32 s_lastcheck_;
    Common::le32 s_checkinterval_;
    Common::le32 s_creator_os_;
    Common::le32 s_rev_level_;
    Common::le16 s_def_resuid_;
    Common::le16 s_def_resgid_;
    // Revision 1 (dynamic) from here on.
    Common::le32 s_first_ino_;
    Common::le16 s_inode_size_;
    Common::le16 s_block_group_nr_;
    Common::le32 s_feature_compat_;
    Common::le32 s_feature_incompat_;
    Common::le32 s_feature_ro_compat_;
    unsigned char s_uuid_[16];
    unsigned char s_volume_name_[16];
    unsigned char s_last_mounted_[64];
    Common::le32 s_algorithm_usage_bitmap_;
    std::uint8_t s_prealloc_blocks_;
    std::uint8_t s_prealloc_dir_blocks_;
    Common::le16 s_reserved_gdt_blocks_;
    unsigned char s_journal_uuid_[16];
    Common::le32 s_journal_inum_;
    Common::le32 s_journal_dev_;
    Common::le32 s_last_orphan_;
    Common::le32 s_hash_seed_[4];
    std::uint8_t s_def_hash_version_;
    std::uint8_t s_jnl_backup_type_;
    Common::le16 s_desc_size_;
    Common::le32 s_default_mount_opts_;
    Common::le32 s_first_meta_bg_;
    Common::le32 s_mkfs_time_;
    Common::le32 s_jnl_blocks_[17];
    // 64-bit block numbers and the ext4 fields from here on.
    Common::le32 s_blocks_count_hi_;
    Common::le32 s_r_blocks_count_hi_;
    Common::le32 s_free_blocks_count_hi_;
    Common::le16 s_min_extra_isize_;
    Common::le16 s_want_extra_isize_;
    Common::le32 s_flags_;
    Common::le16 s_raid_stride_;
    Common::le16 s_mmp_update_interval_;
    Common::le64 s_mmp_block_;
    Common::le32 s_raid_stripe_width_;
    std::uint8_t s_log_groups_per_flex_;
    std::uint8_t s_checksum_type_;
    std::uint8_t s_encryption_level_;
    std::uint8_t s_reserved_pad_;
    Common::le64 s_kbytes_written_;
    Common::le32 s_snapshot_inum_;
    Common::le32 s_snapshot_id_;
    Common::le64 s_snapshot_r_blocks_count_;
    Common::le32 s_snapshot_list_;
    Common::le32 s_error_count_;
    Common::le32 s_first_error_time_;
    Common::le32 s_first_error_ino_;
    Common::le64 s_first_error_block_;
    unsigned char s_first_error_func_[32];
    Common::le32 s_first_error_line_;
    Common::le32 s_last_error_time_;
    Common::le32 s_last_error_ino_;
    Common::le32 s_last_error_line_;
    Common::le64 s_last_error_block_;
    unsigned char s_last_error_func_[32];
    unsigned char s_mount_opts_[64];
    Common::le32 s_usr_quota_inum_;
    Common::le32 s_grp_quota_inum_;
    Common::le32 s_overhead_clusters_;
    Common::le32 s_backup_bgs_[2];
    unsigned char s_encrypt_algos_[4];
    unsigned char s_encrypt_pw_salt_[16];
    Common::le32 s_lpf_ino_;
    Common::le32 s_prj_quota_inum_;
    Common::le32 s_checksum_seed_;
    std::uint8_t s_wtime_hi_;
    std::uint8_t s_mtime_hi_;
    std::uint8_t s_mkfs_time_hi_;
    std::uint8_t s_lastcheck_hi_;
    std::uint8_t s_first_error_time_hi_;
    std::uint8_t s_last_error_time_hi_;
    std::uint8_t s_first_error_errcode_;
    std::uint8_t s_last_error_errcode_;
    Common::le16 s_encoding_;
    Common::le16 s_encoding_flags_;
    Common::le32 s_orphan_file_inum_;
    Common::le32 s_reserved_[94];
    Common::le32 s_checksum_;

    std::uint32_t s_inodes_count() const { return s_inodes_count_.get(); }
    std::uint32_t s_blocks_count_lo() const { return s_blocks_count_lo_.get(); }
    std::uint32_t s_r_blocks_count_lo() const { return s_r_blocks_count_lo_.get(); }
    std::uint32_t s_free_blocks_count_lo() const { return s_free_blocks_count_lo_.get(); }
    std::uint32_t s_free_inodes_count() const { return s_free_inodes_count_.get(); }
    std::uint32_t s_first_data_block() const { return s_first_data_block_.get(); }
    std::uint32_t s_log_block_size() const { return s_log_block_size_.get(); }
    std::uint32_t s_log_frag_size() const { return s_log_frag_size_.get(); }
    std::uint32_t s_blocks_per_group() const { return s_blocks_per_group_.get(); }
    std::uint32_t s_frags_per_group() const { return s_frags_per_group_.get(); }
    std::uint32_t s_inodes_per_group() const { return s_inodes_per_group_.get(); }
    std::uint16_t s_magic() const { return s_magic_.get(); }
    std::uint32_t s_creator_os() const { return s_creator_os_.get(); }
    std::uint32_t s_rev_level() const { return s_rev_level_.get(); }
    std::uint32_t s_first_ino() const { return s_first_ino_.get(); }
    std::uint16_t s_inode_size() const { return s_inode_size_.get(); }
    std::uint32_t s_feature_compat() const { return s_feature_compat_.get(); }
    std::uint32_t s_feature_incompat() const { return s_feature_incompat_.get(); }
    std::uint32_t s_feature_ro_compat() const { return s_feature_ro_compat_.get(); }
    const unsigned char* s_uuid() const { return s_uuid_; }
    const unsigned char* s_volume_name() const { return s_volume_name_; }
    std::uint16_t s_desc_size() const { return s_desc_size_.get(); }
    std::uint32_t s_first_meta_bg() const { return s_first_meta_bg_.get(); }
    std::uint32_t s_blocks_count_hi() const { return s_blocks_count_hi_.get(); }
    std::uint32_t s_r_blocks_count_hi() const { return s_r_blocks_count_hi_.get(); }
    std::uint32_t s_free_blocks_count_hi() const { return s_free_blocks_count_hi_.get(); }
    std::uint16_t s_min_extra_isize() const { return s_min_extra_isize_.get(); }
    std::uint16_t s_want_extra_isize() const { return s_want_extra_isize_.get(); }
    std::uint8_t s_log_groups_per_flex() const { return s_log_groups_per_flex_; }

    bool has_incompat(std::uint32_t bits) const { return (s_feature_incompat() & bits) != 0; }
    void clear_incompat(std::uint32_t bits) { s_feature_incompat_.set(s_feature_incompat() & ~bits); }
    bool has_ro_compat(std::uint32_t bits) const { return (s_feature_ro_compat() & bits) != 0; }
    void set_ro_compat(std::uint32_t bits) { s_feature_ro_compat_.set(s_feature_ro_compat() | bits); }
    // A high half counts only on a volume with 64-bit block numbers.
    std::uint64_t wide(std::uint32_t low, std::uint32_t high) const {
        return has_incompat(kIncompat64Bit) ? (std::uint64_t(high) << 32 | low) : low;
    }
    std::uint64_t blocks_count() const { return wide(s_blocks_count_lo(), s_blocks_count_hi()); }
    std::uint64_t r_blocks_count() const { return wide(s_r_blocks_count_lo(), s_r_blocks_count_hi()); }
    std::uint64_t free_blocks_count() const { return wide(s_free_blocks_count_lo(), s_free_blocks_count_hi()); }
};
static_assert(sizeof(Superblock) == 1024, "the superblock is 1024 bytes");
static_assert(offsetof(Superblock, s_inodes_count_) == 0x00, "s_inodes_count");
static_assert(offsetof(Superblock, s_blocks_count_lo_) == 0x04, "s_blocks_count_lo");
static_assert(offsetof(Superblock, s_r_blocks_count_lo_) == 0x08, "s_r_blocks_count_lo");
static_assert(offsetof(Superblock, s_free_blocks_count_lo_) == 0x0C, "s_free_blocks_count_lo");
static_assert(offsetof(Superblock, s_free_inodes_count_) == 0x10, "s_free_inodes_count");
static_assert(offsetof(Superblock, s_first_data_block_) == 0x14, "s_first_data_block");
static_assert(offsetof(Superblock, s_log_block_size_) == 0x18, "s_log_block_size");
static_assert(offsetof(Superblock, s_log_frag_size_) == 0x1C, "s_log_frag_size");
static_assert(offsetof(Superblock, s_blocks_per_group_) == 0x20, "s_blocks_per_group");
static_assert(offsetof(Superblock, s_frags_per_group_) == 0x24, "s_frags_per_group");
static_assert(offsetof(Superblock, s_inodes_per_group_) == 0x28, "s_inodes_per_group");
static_assert(offsetof(Superblock, s_magic_) == 0x38, "s_magic");
static_assert(offsetof(Superblock, s_creator_os_) == 0x48, "s_creator_os");
static_assert(offsetof(Superblock, s_rev_level_) == 0x4C, "s_rev_level");
static_assert(offsetof(Superblock, s_first_ino_) == 0x54, "s_first_ino");
static_assert(offsetof(Superblock, s_inode_size_) == 0x58, "s_inode_size");
static_assert(offsetof(Superblock, s_feature_compat_) == 0x5C, "s_feature_compat");
static_assert(offsetof(Superblock, s_feature_incompat_) == 0x60, "s_feature_incompat");
static_assert(offsetof(Superblock, s_feature_ro_compat_) == 0x64, "s_feature_ro_compat");
static_assert(offsetof(Superblock, s_uuid_) == 0x68, "s_uuid");
static_assert(offsetof(Superblock, s_volume_name_) == 0x78, "s_volume_name");
static_assert(offsetof(Superblock, s_journal_uuid_) == 0xD0, "s_journal_uuid");
static_assert(offsetof(Superblock, s_hash_seed_) == 0xEC, "s_hash_seed");
static_assert(offsetof(Superblock, s_desc_size_) == 0xFE, "s_desc_size");
static_assert(offsetof(Superblock, s_first_meta_bg_) == 0x104, "s_first_meta_bg");
static_assert(offsetof(Superblock, s_jnl_blocks_) == 0x10C, "s_jnl_blocks");
static_assert(offsetof(Superblock, s_blocks_count_hi_) == 0x150, "s_blocks_count_hi");
static_assert(offsetof(Superblock, s_r_blocks_count_hi_) == 0x154, "s_r_blocks_count_hi");
static_assert(offsetof(Superblock, s_free_blocks_count_hi_) == 0x158, "s_free_blocks_count_hi");
static_assert(offsetof(Superblock, s_min_extra_isize_) == 0x15C, "s_min_extra_isize");
static_assert(offsetof(Superblock, s_want_extra_isize_) == 0x15E, "s_want_extra_isize");
static_assert(offsetof(Superblock, s_mmp_block_) == 0x168, "s_mmp_block");
static_assert(offsetof(Superblock, s_log_groups_per_flex_) == 0x174, "s_log_groups_per_flex");
static_assert(offsetof(Superblock, s_kbytes_written_) == 0x178, "s_kbytes_written");
static_assert(offsetof(Superblock, s_first_error_func_) == 0x1A8, "s_first_error_func");
static_assert(offsetof(Superblock, s_mount_opts_) == 0x200, "s_mount_opts");
static_assert(offsetof(Superblock, s_checksum_seed_) == 0x270, "s_checksum_seed");
static_assert(offsetof(Superblock, s_orphan_file_inum_) == 0x280, "s_orphan_file_inum");
static_assert(offsetof(Superblock, s_checksum_) == 0x3FC, "s_checksum");

// A group descriptor. Without 64-bit block numbers it is the first 32
// bytes only; with them it is s_desc_size bytes, of which these 64 are
// known. The driver copies each into this record with the rest zeroed, so
// the high halves of a 32-byte descriptor read as 0 and every join below
// is right for both forms.
struct GroupDescriptor {
    static constexpr std::uint32_t kNarrowSize = 32;

    Common::le32 bg_block_bitmap_lo_;
    Common::le32 bg_inode_bitmap_lo_;
    Common::le32 bg_inode_table_lo_;
    Common::le16 bg_free_blocks_count_lo_;
    Common::le16 bg_free_inodes_count_lo_;
    Common::le16 bg_used_dirs_count_lo_;
    Common::le16 bg_flags_;
    Common::le32 bg_exclude_bitmap_lo_;
    Common::le16 bg_block_bitmap_csum_lo_;
    Common::le16 bg_inode_bitmap_csum_lo_;
    Common::le16 bg_itable_unused_lo_;
    Common::le16 bg_checksum_;
    // The long form only.
    Common::le32 bg_block_bitmap_hi_;
    Common::le32 bg_inode_bitmap_hi_;
    Common::le32 bg_inode_table_hi_;
    Common::le16 bg_free_blocks_count_hi_;
    Common::le16 bg_free_inodes_count_hi_;
    Common::le16 bg_used_dirs_count_hi_;
    Common::le16 bg_itable_unused_hi_;
    Common::le32 bg_exclude_bitmap_hi_;
    Common::le16 bg_block_bitmap_csum_hi_;
    Common::le16 bg_inode_bitmap_csum_hi_;
    Common::le32 bg_reserved_;

    std::uint64_t bg_block_bitmap() const { return join(bg_block_bitmap_lo_, bg_block_bitmap_hi_); }
    std::uint64_t bg_inode_bitmap() const { return join(bg_inode_bitmap_lo_, bg_inode_bitmap_hi_); }
    std::uint64_t bg_inode_table() const { return join(bg_inode_table_lo_, bg_inode_table_hi_); }
    std::uint16_t bg_flags() const { return bg_flags_.get(); }
    std::uint16_t bg_checksum() const { return bg_checksum_.get(); }

private:
    static std::uint64_t join(const Common::le32& low, const Common::le32& high) {
        return std::uint64_t(high.get()) << 32 | low.get();
    }
};
static_assert(sizeof(GroupDescriptor) == 64, "the long group descriptor is 64 bytes");
static_assert(offsetof(GroupDescriptor, bg_block_bitmap_lo_) == 0x00, "bg_block_bitmap_lo");
static_assert(offsetof(GroupDescriptor, bg_inode_bitmap_lo_) == 0x04, "bg_inode_bitmap_lo");
static_assert(offsetof(GroupDescriptor, bg_inode_table_lo_) == 0x08, "bg_inode_table_lo");
static_assert(offsetof(GroupDescriptor, bg_flags_) == 0x12, "bg_flags");
static_assert(offsetof(GroupDescriptor, bg_checksum_) == 0x1E, "bg_checksum");
static_assert(offsetof(GroupDescriptor, bg_block_bitmap_hi_) == GroupDescriptor::kNarrowSize, "the long form");
static_assert(offsetof(GroupDescriptor, bg_inode_bitmap_hi_) == 0x24, "bg_inode_bitmap_hi");
static_assert(offsetof(GroupDescriptor, bg_inode_table_hi_) == 0x28, "bg_inode_table_hi");
static_assert(offsetof(GroupDescriptor, bg_exclude_bitmap_hi_) == 0x34, "bg_exclude_bitmap_hi");

// An inode: the 128 bytes that every inode size has, then the extra fields
// that a larger inode holds as far as its i_extra_isize says. The driver
// keeps each inode in a copy of at least this record's size, zero-filled
// behind the inode's own bytes; the extra fields count only through the
// methods that take the inode size.
struct InodeRecord {
    static constexpr std::uint32_t kBaseSize = 128;
    static constexpr std::uint32_t kMapBytes = 60;  // i_block
    static constexpr std::uint32_t kMapWords = 15;

    Common::le16 i_mode_;
    Common::le16 i_uid_;
    Common::le32 i_size_lo_;
    Common::le32 i_atime_;
    Common::le32 i_ctime_;
    Common::le32 i_mtime_;
    Common::le32 i_dtime_;
    Common::le16 i_gid_;
    Common::le16 i_links_count_;
    Common::le32 i_blocks_lo_;
    Common::le32 i_flags_;
    Common::le32 l_i_version_;
    Common::le32 i_block_[kMapWords];
    Common::le32 i_generation_;
    Common::le32 i_file_acl_lo_;
    Common::le32 i_size_high_;
    Common::le32 i_obso_faddr_;
    Common::le16 l_i_blocks_high_;
    Common::le16 l_i_file_acl_high_;
    Common::le16 l_i_uid_high_;
    Common::le16 l_i_gid_high_;
    Common::le16 l_i_checksum_lo_;
    Common::le16 l_i_reserved_;
    // Behind the first 128 bytes.
    Common::le16 i_extra_isize_;
    Common::le16 i_checksum_hi_;
    Common::le32 i_ctime_extra_;
    Common::le32 i_mtime_extra_;
    Common::le32 i_atime_extra_;
    Common::le32 i_crtime_;
    Common::le32 i_crtime_extra_;
    Common::le32 i_version_hi_;
    Common::le32 i_projid_;

    std::uint16_t i_mode() const { return i_mode_.get(); }
    std::uint32_t i_uid() const { return i_uid_.get() | std::uint32_t(l_i_uid_high_.get()) << 16; }
    std::uint32_t i_size_lo() const { return i_size_lo_.get(); }
    std::uint32_t i_atime() const { return i_atime_.get(); }
    std::uint32_t i_ctime() const { return i_ctime_.get(); }
    std::uint32_t i_mtime() const { return i_mtime_.get(); }
    std::uint32_t i_gid() const { return i_gid_.get() | std::uint32_t(l_i_gid_high_.get()) << 16; }
    std::uint16_t i_links_count() const { return i_links_count_.get(); }
    std::uint32_t i_blocks_lo() const { return i_blocks_lo_.get(); }
    std::uint32_t i_flags() const { return i_flags_.get(); }
    // The 60 bytes of the map, read by the location processors.
    const unsigned char* i_block() const { return reinterpret_cast<const unsigned char*>(i_block_); }
    // Word `n` of the map; `n` below kMapWords.
    std::uint32_t i_block_word(std::uint32_t n) const { return i_block_[n].get(); }
    std::uint32_t i_file_acl() const { return i_file_acl_lo_.get() | std::uint32_t(l_i_file_acl_high_.get()) << 16; }
    std::uint32_t i_size_high() const { return i_size_high_.get(); }
    std::uint16_t i_blocks_high() const { return l_i_blocks_high_.get(); }

    // Setters for a new or changed inode; each stores its value's halves
    // where the format splits it.
    void set_i_mode(std::uint16_t value) { i_mode_.set(value); }
    void set_i_uid(std::uint32_t value) {
        i_uid_.set(static_cast<std::uint16_t>(value));
        l_i_uid_high_.set(static_cast<std::uint16_t>(value >> 16));
    }
    void set_i_gid(std::uint32_t value) {
        i_gid_.set(static_cast<std::uint16_t>(value));
        l_i_gid_high_.set(static_cast<std::uint16_t>(value >> 16));
    }
    void set_i_size_lo(std::uint32_t value) { i_size_lo_.set(value); }
    void set_i_size_high(std::uint32_t value) { i_size_high_.set(value); }
    void set_i_atime(std::uint32_t value) { i_atime_.set(value); }
    void set_i_ctime(std::uint32_t value) { i_ctime_.set(value); }
    void set_i_mtime(std::uint32_t value) { i_mtime_.set(value); }
    std::uint32_t i_dtime() const { return i_dtime_.get(); }
    void set_i_dtime(std::uint32_t value) { i_dtime_.set(value); }
    void set_i_links_count(std::uint16_t value) { i_links_count_.set(value); }
    void set_i_blocks_lo(std::uint32_t value) { i_blocks_lo_.set(value); }
    void set_i_blocks_high(std::uint16_t value) { l_i_blocks_high_.set(value); }
    void set_i_flags(std::uint32_t value) { i_flags_.set(value); }
    unsigned char* i_block() { return reinterpret_cast<unsigned char*>(i_block_); }
    void set_i_block_word(std::uint32_t n, std::uint32_t value) { i_block_[n].set(value); }
    void set_i_extra_isize(std::uint16_t value) { i_extra_isize_.set(value); }
    // The extra time fields, stored only where the inode holds them, as
    // the getters below read them.
    void set_i_ctime_extra(std::uint32_t value, std::uint32_t inode_size) {
        set_extra(i_ctime_extra_, value, inode_size, offsetof(InodeRecord, i_ctime_extra_) + 4);
    }
    void set_i_mtime_extra(std::uint32_t value, std::uint32_t inode_size) {
        set_extra(i_mtime_extra_, value, inode_size, offsetof(InodeRecord, i_mtime_extra_) + 4);
    }
    void set_i_atime_extra(std::uint32_t value, std::uint32_t inode_size) {
        set_extra(i_atime_extra_, value, inode_size, offsetof(InodeRecord, i_atime_extra_) + 4);
    }
    void set_i_crtime(std::uint32_t value, std::uint32_t inode_size) {
        set_extra(i_crtime_, value, inode_size, offsetof(InodeRecord, i_crtime_extra_) + 4);
    }
    void set_i_crtime_extra(std::uint32_t value, std::uint32_t inode_size) {
        set_extra(i_crtime_extra_, value, inode_size, offsetof(InodeRecord, i_crtime_extra_) + 4);
    }

    // The extra fields of an inode of `inode_size` bytes, 0 when the inode
    // doesn't hold them.
    std::uint16_t i_extra_isize(std::uint32_t inode_size) const {
        return inode_size > kBaseSize ? i_extra_isize_.get() : 0;
    }
    std::uint32_t i_ctime_extra(std::uint32_t inode_size) const {
        return extra(i_ctime_extra_, inode_size, offsetof(InodeRecord, i_ctime_extra_) + 4);
    }
    std::uint32_t i_mtime_extra(std::uint32_t inode_size) const {
        return extra(i_mtime_extra_, inode_size, offsetof(InodeRecord, i_mtime_extra_) + 4);
    }
    std::uint32_t i_atime_extra(std::uint32_t inode_size) const {
        return extra(i_atime_extra_, inode_size, offsetof(InodeRecord, i_atime_extra_) + 4);
    }
    // The creation time counts only together with its extra field.
    std::uint32_t i_crtime(std::uint32_t inode_size) const {
        return extra(i_crtime_, inode_size, offsetof(InodeRecord, i_crtime_extra_) + 4);
    }
    std::uint32_t i_crtime_extra(std::uint32_t inode_size) const {
        return extra(i_crtime_extra_, inode_size, offsetof(InodeRecord, i_crtime_extra_) + 4);
    }

private:
    // Whether the part in use behind the first 128 bytes reaches byte
    // `reach` and lies inside the inode.
    bool holds_extra(std::uint32_t inode_size, std::uint32_t reach) const {
        const std::uint32_t in_use = kBaseSize + i_extra_isize(inode_size);
        return inode_size != kBaseSize && in_use <= inode_size && in_use >= reach;
    }
    std::uint32_t extra(const Common::le32& field, std::uint32_t inode_size, std::uint32_t reach) const {
        return holds_extra(inode_size, reach) ? field.get() : 0;
    }
    void set_extra(Common::le32& field, std::uint32_t value, std::uint32_t inode_size, std::uint32_t reach) {
        if (holds_extra(inode_size, reach)) field.set(value);
    }
};
static_assert(sizeof(InodeRecord) == 160, "the inode record runs to i_projid");
static_assert(offsetof(InodeRecord, i_mode_) == 0x00, "i_mode");
static_assert(offsetof(InodeRecord, i_uid_) == 0x02, "i_uid");
static_assert(offsetof(InodeRecord, i_size_lo_) == 0x04, "i_size_lo");
static_assert(offsetof(InodeRecord, i_atime_) == 0x08, "i_atime");
static_assert(offsetof(InodeRecord, i_ctime_) == 0x0C, "i_ctime");
static_assert(offsetof(InodeRecord, i_mtime_) == 0x10, "i_mtime");
static_assert(offsetof(InodeRecord, i_gid_) == 0x18, "i_gid");
static_assert(offsetof(InodeRecord, i_links_count_) == 0x1A, "i_links_count");
static_assert(offsetof(InodeRecord, i_blocks_lo_) == 0x1C, "i_blocks_lo");
static_assert(offsetof(InodeRecord, i_flags_) == 0x20, "i_flags");
static_assert(offsetof(InodeRecord, i_block_) == 0x28, "i_block");
static_assert(sizeof(InodeRecord::i_block_) == InodeRecord::kMapBytes, "i_block is 60 bytes");
static_assert(offsetof(InodeRecord, i_file_acl_lo_) == 0x68, "i_file_acl_lo");
static_assert(offsetof(InodeRecord, i_size_high_) == 0x6C, "i_size_high");
static_assert(offsetof(InodeRecord, l_i_blocks_high_) == 0x74, "l_i_blocks_high");
static_assert(offsetof(InodeRecord, l_i_file_acl_high_) == 0x76, "l_i_file_acl_high");
static_assert(offsetof(InodeRecord, l_i_uid_high_) == 0x78, "l_i_uid_high");
static_assert(offsetof(InodeRecord, l_i_gid_high_) == 0x7A, "l_i_gid_high");
static_assert(offsetof(InodeRecord, i_extra_isize_) == InodeRecord::kBaseSize, "i_extra_isize");
static_assert(offsetof(InodeRecord, i_ctime_extra_) == 0x84, "i_ctime_extra");
static_assert(offsetof(InodeRecord, i_mtime_extra_) == 0x88, "i_mtime_extra");
static_assert(offsetof(InodeRecord, i_atime_extra_) == 0x8C, "i_atime_extra");
static_assert(offsetof(InodeRecord, i_crtime_) == 0x90, "i_crtime");
static_assert(offsetof(InodeRecord, i_crtime_extra_) == 0x94, "i_crtime_extra");

// The classic block map, in i_block and in each indirect block: an array
// of 32-bit block numbers, 0 for a hole.
inline const Common::le32* BlockPointers(const unsigned char* bytes) {
    return reinterpret_cast<const Common::le32*>(bytes);
}
inline Common::le32* BlockPointers(unsigned char* bytes) { return reinterpret_cast<Common::le32*>(bytes); }

// The extent tree: a node is a header and eh_max entries of 12 bytes each,
// index entries above the leaves and extents in them.
struct ExtentIndex {
    Common::le32 ei_block_;
    Common::le32 ei_leaf_lo_;
    Common::le16 ei_leaf_hi_;
    Common::le16 ei_unused_;

    std::uint32_t ei_block() const { return ei_block_.get(); }
    // The block of the node below.
    std::uint64_t child() const { return ei_leaf_lo_.get() | std::uint64_t(ei_leaf_hi_.get()) << 32; }
    void set_ei_block(std::uint32_t value) { ei_block_.set(value); }
    // Points the entry at `block`, ei_unused cleared.
    void set_child(std::uint64_t block) {
        ei_leaf_lo_.set(static_cast<std::uint32_t>(block));
        ei_leaf_hi_.set(static_cast<std::uint16_t>(block >> 32));
        ei_unused_.set(0);
    }
};
static_assert(sizeof(ExtentIndex) == 12, "an extent index entry is 12 bytes");
static_assert(offsetof(ExtentIndex, ei_leaf_lo_) == 4, "ei_leaf_lo");
static_assert(offsetof(ExtentIndex, ei_leaf_hi_) == 8, "ei_leaf_hi");

struct ExtentLeaf {
    Common::le32 ee_block_;
    Common::le16 ee_len_;
    Common::le16 ee_start_hi_;
    Common::le32 ee_start_lo_;

    std::uint32_t ee_block() const { return ee_block_.get(); }
    std::uint16_t ee_len() const { return ee_len_.get(); }
    std::uint64_t ee_start() const { return ee_start_lo_.get() | std::uint64_t(ee_start_hi_.get()) << 32; }
    void set_ee_block(std::uint32_t value) { ee_block_.set(value); }
    void set_ee_len(std::uint16_t value) { ee_len_.set(value); }
    void set_ee_start(std::uint64_t block) {
        ee_start_lo_.set(static_cast<std::uint32_t>(block));
        ee_start_hi_.set(static_cast<std::uint16_t>(block >> 32));
    }
};
static_assert(sizeof(ExtentLeaf) == 12, "an extent is 12 bytes");
static_assert(offsetof(ExtentLeaf, ee_len_) == 4, "ee_len");
static_assert(offsetof(ExtentLeaf, ee_start_hi_) == 6, "ee_start_hi");
static_assert(offsetof(ExtentLeaf, ee_start_lo_) == 8, "ee_start_lo");
// A node is searched by the first logical block of its entries, whichever
// kind they are.
static_assert(offsetof(ExtentIndex, ei_block_) == 0 && offsetof(ExtentLeaf, ee_block_) == 0,
              "ei_block and ee_block share their place");

struct ExtentHeader {
    static constexpr std::uint16_t kMagic = 0xF30A;

    Common::le16 eh_magic_;
    Common::le16 eh_entries_;
    Common::le16 eh_max_;
    Common::le16 eh_depth_;
    Common::le32 eh_generation_;

    std::uint16_t eh_magic() const { return eh_magic_.get(); }
    std::uint16_t eh_entries() const { return eh_entries_.get(); }
    std::uint16_t eh_max() const { return eh_max_.get(); }
    std::uint16_t eh_depth() const { return eh_depth_.get(); }
    // Entry `n` behind the header, of a node whose eh_max the caller has
    // checked against the node's room; `n` below eh_entries.
    const ExtentIndex& index(std::uint32_t n) const { return *reinterpret_cast<const ExtentIndex*>(entry(n)); }
    const ExtentLeaf& leaf(std::uint32_t n) const { return *reinterpret_cast<const ExtentLeaf*>(entry(n)); }
    std::uint32_t key(std::uint32_t n) const { return leaf(n).ee_block(); }
    ExtentIndex& index(std::uint32_t n) { return *reinterpret_cast<ExtentIndex*>(entry(n)); }
    ExtentLeaf& leaf(std::uint32_t n) { return *reinterpret_cast<ExtentLeaf*>(entry(n)); }
    void set_eh_magic(std::uint16_t value) { eh_magic_.set(value); }
    void set_eh_entries(std::uint16_t value) { eh_entries_.set(value); }
    void set_eh_max(std::uint16_t value) { eh_max_.set(value); }
    void set_eh_depth(std::uint16_t value) { eh_depth_.set(value); }
    void set_eh_generation(std::uint32_t value) { eh_generation_.set(value); }

private:
    unsigned char* entry(std::uint32_t n) {
        return reinterpret_cast<unsigned char*>(this) + sizeof(ExtentHeader) + std::size_t(n) * sizeof(ExtentLeaf);
    }
    const unsigned char* entry(std::uint32_t n) const {
        const auto* node = reinterpret_cast<const unsigned char*>(this);
        return node + sizeof(ExtentHeader) + std::size_t(n) * sizeof(ExtentLeaf);
    }
};
static_assert(sizeof(ExtentHeader) == 12, "the extent header is 12 bytes");
static_assert(offsetof(ExtentHeader, eh_entries_) == 2, "eh_entries");
static_assert(offsetof(ExtentHeader, eh_max_) == 4, "eh_max");
static_assert(offsetof(ExtentHeader, eh_depth_) == 6, "eh_depth");

// A directory entry, ext2_dir_entry_2: 8 bytes, and name_len bytes of name
// behind them inside the entry's rec_len.
struct DirEntryRecord {
    static constexpr std::uint32_t kHeaderSize = 8;

    Common::le32 inode_;
    Common::le16 rec_len_;
    std::uint8_t name_len_;
    std::uint8_t file_type_;

    // The inode number, not index; 0 for an unused entry.
    std::uint32_t inode() const { return inode_.get(); }
    // The published form of a length that 16 bits can't hold: a 64 KiB
    // block's single entry is 65535 (or 0 from older tools), and any length
    // keeps bits 16 and 17 in its two low bits. A decoded length beyond the
    // rest of a smaller block is refused by the entry check as before.
    std::uint32_t rec_len() const {
        const std::uint32_t stored = rec_len_.get();
        if (stored == 0 || stored == 0xFFFF) return 0x10000;
        return (stored & 0xFFFC) | (stored & 3) << 16;
    }
    std::uint8_t name_len() const { return name_len_; }
    std::uint8_t file_type() const { return file_type_; }
    // The name: name_len bytes, which the caller has checked to lie inside
    // the entry's block.
    const unsigned char* name() const { return reinterpret_cast<const unsigned char*>(this) + kHeaderSize; }
    unsigned char* name() { return reinterpret_cast<unsigned char*>(this) + kHeaderSize; }

    void set_inode(std::uint32_t value) { inode_.set(value); }
    // Stores `length` in the published form that rec_len() reads: a 64 KiB
    // entry as 65535, bits 16 and 17 in the two low bits.
    void set_rec_len(std::uint32_t length) {
        if (length >= 0x10000) {
            rec_len_.set(0xFFFF);
        } else {
            rec_len_.set(static_cast<std::uint16_t>(length));
        }
    }
    void set_name_len(std::uint8_t value) { name_len_ = value; }
    void set_file_type(std::uint8_t value) { file_type_ = value; }
};
static_assert(sizeof(DirEntryRecord) == DirEntryRecord::kHeaderSize, "a directory entry's fixed part is 8 bytes");
static_assert(offsetof(DirEntryRecord, rec_len_) == 4, "rec_len");
static_assert(offsetof(DirEntryRecord, name_len_) == 6, "name_len");
static_assert(offsetof(DirEntryRecord, file_type_) == 7, "file_type");

}  // namespace extfs
