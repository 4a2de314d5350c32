#pragma once
// The on-disk records of ext2, ext3 and ext4, as the published format lays
// them out: little-endian, packed, fields under their published names.
// Nothing outside a record reads a raw field: the accessors assemble each
// value from its bytes at every access, so the code is right on any host
// and a damaged field is seen exactly as the disk holds it.
#include <cstdint>

namespace extfs {

inline std::uint16_t Le16(const unsigned char* at) { return std::uint16_t(at[0] | at[1] << 8); }
inline std::uint32_t Le32(const unsigned char* at) {
    return std::uint32_t(at[0]) | std::uint32_t(at[1]) << 8 | std::uint32_t(at[2]) << 16 | std::uint32_t(at[3]) << 24;
}

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
constexpr std::uint32_t kRoCompatHugeFile = 0x8;
constexpr std::uint32_t kRoCompatGdtCsum = 0x10;
constexpr std::uint32_t kRoCompatDirNlink = 0x20;
constexpr std::uint32_t kRoCompatExtraIsize = 0x40;
constexpr std::uint32_t kRoCompatServed = 0x7B;

// The superblock: 1024 bytes at byte 1024 of the volume.
struct Superblock {
    unsigned char bytes[1024];

    std::uint32_t u32(std::uint32_t at) const { return Le32(bytes + at); }
    std::uint16_t u16(std::uint32_t at) const { return Le16(bytes + at); }

    std::uint32_t s_inodes_count() const { return u32(0x00); }
    std::uint32_t s_blocks_count_lo() const { return u32(0x04); }
    std::uint32_t s_r_blocks_count_lo() const { return u32(0x08); }
    std::uint32_t s_free_blocks_count_lo() const { return u32(0x0C); }
    std::uint32_t s_free_inodes_count() const { return u32(0x10); }
    std::uint32_t s_first_data_block() const { return u32(0x14); }
    std::uint32_t s_log_block_size() const { return u32(0x18); }
    std::uint32_t s_log_frag_size() const { return u32(0x1C); }
    std::uint32_t s_blocks_per_group() const { return u32(0x20); }
    std::uint32_t s_frags_per_group() const { return u32(0x24); }
    std::uint32_t s_inodes_per_group() const { return u32(0x28); }
    std::uint16_t s_magic() const { return u16(0x38); }
    std::uint32_t s_creator_os() const { return u32(0x48); }
    std::uint32_t s_rev_level() const { return u32(0x4C); }
    std::uint32_t s_first_ino() const { return u32(0x54); }
    std::uint16_t s_inode_size() const { return u16(0x58); }
    std::uint32_t s_feature_compat() const { return u32(0x5C); }
    std::uint32_t s_feature_incompat() const { return u32(0x60); }
    std::uint32_t s_feature_ro_compat() const { return u32(0x64); }
    const unsigned char* s_uuid() const { return bytes + 0x68; }
    const unsigned char* s_volume_name() const { return bytes + 0x78; }
    std::uint16_t s_desc_size() const { return u16(0xFE); }
    std::uint32_t s_first_meta_bg() const { return u32(0x104); }
    std::uint32_t s_blocks_count_hi() const { return u32(0x150); }
    std::uint32_t s_r_blocks_count_hi() const { return u32(0x154); }
    std::uint32_t s_free_blocks_count_hi() const { return u32(0x158); }
    std::uint16_t s_min_extra_isize() const { return u16(0x15C); }
    std::uint16_t s_want_extra_isize() const { return u16(0x15E); }
    std::uint8_t s_log_groups_per_flex() const { return bytes[0x174]; }

    bool has_incompat(std::uint32_t bits) const { return (s_feature_incompat() & bits) != 0; }
    void clear_incompat(std::uint32_t bits) {
        std::uint32_t value = s_feature_incompat() & ~bits;
        for (int i = 0; i < 4; ++i) bytes[0x60 + i] = static_cast<unsigned char>(value >> (8 * i));
    }
    bool has_ro_compat(std::uint32_t bits) const { return (s_feature_ro_compat() & bits) != 0; }
    // A high half counts only on a volume with 64-bit block numbers.
    std::uint64_t wide(std::uint32_t low, std::uint32_t high) const {
        return has_incompat(kIncompat64Bit) ? (std::uint64_t(high) << 32 | low) : low;
    }
    std::uint64_t blocks_count() const { return wide(s_blocks_count_lo(), s_blocks_count_hi()); }
    std::uint64_t r_blocks_count() const { return wide(s_r_blocks_count_lo(), s_r_blocks_count_hi()); }
    std::uint64_t free_blocks_count() const { return wide(s_free_blocks_count_lo(), s_free_blocks_count_hi()); }
};
static_assert(sizeof(Superblock) == 1024, "superblock layout");

// A view of one group descriptor of 32 bytes, or of 64 and more with
// 64-bit block numbers; the high halves only in the long form.
class GroupDescriptor {
public:
    GroupDescriptor(const unsigned char* bytes, bool wide) : bytes_(bytes), wide_(wide) {}

    std::uint64_t bg_block_bitmap() const { return join(0x00, 0x20); }
    std::uint64_t bg_inode_bitmap() const { return join(0x04, 0x24); }
    std::uint64_t bg_inode_table() const { return join(0x08, 0x28); }
    std::uint16_t bg_flags() const { return Le16(bytes_ + 0x12); }
    std::uint16_t bg_checksum() const { return Le16(bytes_ + 0x1E); }

private:
    std::uint64_t join(std::uint32_t low, std::uint32_t high) const {
        std::uint64_t value = Le32(bytes_ + low);
        return wide_ ? value | std::uint64_t(Le32(bytes_ + high)) << 32 : value;
    }
    const unsigned char* bytes_;
    bool wide_;
};

// The first 128 bytes of an inode, which every inode size has, plus the
// extra fields behind them that the driver reads when the inode holds them.
class InodeRecord {
public:
    static constexpr std::uint32_t kBaseSize = 128;
    static constexpr std::uint32_t kMapBytes = 60;  // i_block

    InodeRecord(const unsigned char* bytes, std::uint32_t size) : bytes_(bytes), size_(size) {}

    std::uint16_t i_mode() const { return Le16(bytes_ + 0x00); }
    std::uint32_t i_uid() const { return Le16(bytes_ + 0x02) | std::uint32_t(Le16(bytes_ + 0x78)) << 16; }
    std::uint32_t i_size_lo() const { return Le32(bytes_ + 0x04); }
    std::uint32_t i_atime() const { return Le32(bytes_ + 0x08); }
    std::uint32_t i_ctime() const { return Le32(bytes_ + 0x0C); }
    std::uint32_t i_mtime() const { return Le32(bytes_ + 0x10); }
    std::uint32_t i_gid() const { return Le16(bytes_ + 0x18) | std::uint32_t(Le16(bytes_ + 0x7A)) << 16; }
    std::uint16_t i_links_count() const { return Le16(bytes_ + 0x1A); }
    std::uint32_t i_blocks_lo() const { return Le32(bytes_ + 0x1C); }
    std::uint32_t i_flags() const { return Le32(bytes_ + 0x20); }
    const unsigned char* i_block() const { return bytes_ + 0x28; }
    std::uint32_t i_block_word(std::uint32_t n) const { return Le32(bytes_ + 0x28 + 4 * n); }
    std::uint32_t i_file_acl() const { return Le32(bytes_ + 0x68) | std::uint32_t(Le16(bytes_ + 0x76)) << 16; }
    std::uint32_t i_size_high() const { return Le32(bytes_ + 0x6C); }
    std::uint16_t i_blocks_high() const { return Le16(bytes_ + 0x74); }

    // The extra fields, with the offset that must lie inside the inode for
    // each to count: 0 when the inode doesn't hold it.
    std::uint16_t i_extra_isize() const { return size_ > kBaseSize ? Le16(bytes_ + 0x80) : 0; }
    std::uint32_t extra_field(std::uint32_t at, std::uint32_t reach) const {
        std::uint32_t extent = kBaseSize + i_extra_isize();
        if (size_ == kBaseSize || extent > size_ || extent < reach) return 0;
        return Le32(bytes_ + at);
    }
    std::uint32_t i_ctime_extra() const { return extra_field(0x84, 136); }
    std::uint32_t i_mtime_extra() const { return extra_field(0x88, 140); }
    std::uint32_t i_atime_extra() const { return extra_field(0x8C, 144); }
    std::uint32_t i_crtime() const { return extra_field(0x90, 152); }
    std::uint32_t i_crtime_extra() const { return extra_field(0x94, 152); }

private:
    const unsigned char* bytes_;
    std::uint32_t size_;
};

// Extent tree records, 12 bytes each.
class ExtentHeader {
public:
    static constexpr std::uint16_t kMagic = 0xF30A;
    explicit ExtentHeader(const unsigned char* bytes) : bytes_(bytes) {}
    std::uint16_t eh_magic() const { return Le16(bytes_); }
    std::uint16_t eh_entries() const { return Le16(bytes_ + 2); }
    std::uint16_t eh_max() const { return Le16(bytes_ + 4); }
    std::uint16_t eh_depth() const { return Le16(bytes_ + 6); }
    // Entry `n` behind the header; the caller keeps `n` below eh_entries.
    const unsigned char* entry(std::uint32_t n) const { return bytes_ + 12 + 12 * n; }

private:
    const unsigned char* bytes_;
};

class ExtentIndex {
public:
    explicit ExtentIndex(const unsigned char* bytes) : bytes_(bytes) {}
    std::uint32_t ei_block() const { return Le32(bytes_); }
    std::uint64_t child() const { return Le32(bytes_ + 4) | std::uint64_t(Le16(bytes_ + 8)) << 32; }

private:
    const unsigned char* bytes_;
};

class ExtentLeaf {
public:
    explicit ExtentLeaf(const unsigned char* bytes) : bytes_(bytes) {}
    std::uint32_t ee_block() const { return Le32(bytes_); }
    std::uint16_t ee_len() const { return Le16(bytes_ + 4); }
    std::uint64_t ee_start() const { return Le32(bytes_ + 8) | std::uint64_t(Le16(bytes_ + 6)) << 32; }

private:
    const unsigned char* bytes_;
};

// A directory entry, ext2_dir_entry_2: 8 bytes and the name behind them.
class DirEntryRecord {
public:
    static constexpr std::uint32_t kHeaderSize = 8;
    explicit DirEntryRecord(const unsigned char* bytes) : bytes_(bytes) {}
    std::uint32_t inode() const { return Le32(bytes_); }
    // The published form of a length that 16 bits can't hold: a 64 KiB
    // block's single entry is 65535 (or 0 from older tools), and any length
    // keeps bits 16 and 17 in its two low bits. A decoded length beyond the
    // rest of a smaller block is refused by the entry check as before.
    std::uint32_t rec_len() const {
        const std::uint32_t stored = Le16(bytes_ + 4);
        if (stored == 0 || stored == 0xFFFF) return 0x10000;
        return (stored & 0xFFFC) | (stored & 3) << 16;
    }
    std::uint8_t name_len() const { return bytes_[6]; }
    std::uint8_t file_type() const { return bytes_[7]; }
    const unsigned char* name() const { return bytes_ + kHeaderSize; }

private:
    const unsigned char* bytes_;
};

}  // namespace extfs
