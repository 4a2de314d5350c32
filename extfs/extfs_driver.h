#pragma once
// The ext2, ext3 and ext4 driver: one code path for the three, as a single
// tree under "/". Its constructor is the mount: it reads the superblock and
// all group descriptors, checks every field it will later believe, and
// refuses what it can't serve. It reads and writes files and directories;
// a volume held read only (by a filter or by features the write path can't
// keep right) refuses every change with FILE_READ_ONLY before anything in
// memory differs from the disk.
//
// An inode index is the inode number minus 1; every object here works with
// the index. A directory id is the index of the directory's inode, but the
// root (inode number 2) is id 0: the two functions below are that mapping.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "extfs/ext_records.h"
#include "fsdriver/file_system_driver_posix.h"
#include "loader/common/error_codes.h"
#include "loader/common/raise.h"

namespace extfs {

class ExtfsInodeCache;
class InodeLocationProcessor;
class ExtfsAllocation;
class ExtfsBlockAllocator;
class ExtfsInodeAllocator;

// Deletes the allocation where its type is complete, so that this header
// needn't include it.
struct ExtfsAllocationDeleter {
    void operator()(ExtfsAllocation* allocation) const;
};

class ExtfsDriver : public FileSystemDriverPosix {
public:
    // Volume types, also the file-system type numbers of the trial.
    static constexpr std::uint32_t kExt4 = 4;
    static constexpr std::uint32_t kExt3 = 5;
    static constexpr std::uint32_t kExt2 = 6;
    static constexpr std::uint64_t kNoBlock = ~std::uint64_t(0);  // a hole in a map

    // The mount. With `inode_filter` (`inode_filter_size` bits) only inodes
    // whose bit is set are visible, and the volume is held read only.
    ExtfsDriver(Fdisk::SimpleDisk* device, std::uint64_t first_sector, std::uint64_t volume_sectors,
                std::uint32_t cache_group, const unsigned char* inode_filter, std::uint64_t inode_filter_size);
    ~ExtfsDriver() override;

    // --- driver operations ---
    void space(std::uint64_t& total, std::uint64_t& free, std::uint64_t& available) override;
    void label(char16_t* buffer, std::uint32_t capacity) override;
    int compare_identifiers(const file_identifier& a, const file_identifier& b) override;
    bool supports_backup() override { return true; }
    void before_first_write() override;
    // A volume held read only refuses every change up front.
    void refuse_if_unchangeable() override;
    // Changed inodes and descriptors go into their cached blocks first.
    void flush_blocks() override;
    DirectoryObject* open_directory(std::uint32_t id) override;
    const char* type_name() override;

    // --- helpers of the driver's objects ---
    // One file-system block through the cache; FILE_CORRUPT past the volume.
    BlockHandle get_fs_block(std::uint64_t block, bool no_read);
    // Whole blocks past the cache, as one bulk transfer.
    void read_blocks(void* buffer, std::uint64_t block, std::uint64_t count);
    // Whole blocks written past the cache; an unaligned buffer goes block
    // by block through it. FILE_CORRUPT past the volume.
    void write_blocks(const void* buffer, std::uint64_t block, std::uint64_t count);
    // Zeros over the blocks, through one aligned buffer.
    void zero_blocks(std::uint64_t block, std::uint64_t count);
    // Sets a read-only-compatible feature bit where the volume may take
    // it; false where it may not (extfs_features.cpp).
    bool set_ro_feature(std::uint32_t bit);
    // `i_extra_isize` for new inodes.
    std::uint16_t extra_isize() const;
    // The most links an inode may have.
    std::uint16_t max_links() const;
    // A copy of the descriptor of `group`, zero-filled behind a 32-byte
    // one; FILE_CORRUPT for a group the volume hasn't.
    GroupDescriptor descriptor(std::uint32_t group) const;
    std::uint64_t inode_table(std::uint32_t group) const { return descriptor(group).bg_inode_table(); }
    // 1 when the group holds a copy of the superblock and descriptors.
    std::uint32_t has_super(std::uint32_t group) const;
    // Whether the inode filter hides the inode of this index.
    bool inode_hidden(std::uint32_t index) const;
    // The map reader for an inode with these `i_flags`, made on first use.
    InodeLocationProcessor& location_processor(std::uint32_t flags);
    ExtfsInodeCache& inodes() { return *inode_cache; }
    // The allocators (extfs_allocation.cpp), made on first use.
    // FILE_READ_ONLY on a volume held read only, every time.
    ExtfsBlockAllocator& block_allocator();
    ExtfsInodeAllocator& inode_allocator();
    // Puts the descriptors and the superblock that allocation changed into
    // their cached blocks, for the next flush of blocks to write.
    void flush_descriptors();
    // Runs one change. Earlier changes are committed first, so that damage
    // met in the middle of this one can drop all it did without touching
    // theirs: FILE_CORRUPT leaves the disk as the change found it, and
    // holds the volume read only for the rest of the mount.
    template <typename Change>
    auto change(Change&& body) -> decltype(body()) {
        begin_change();
        try {
            return body();
        } catch (const Common::Error& error) {
            if (error.Code() == Common::FILE_CORRUPT) abandon_changes();
            throw;
        }
    }
    void begin_change();
    void abandon_changes();
    // How a change that this driver doesn't make is refused.
    [[noreturn]] void refuse_change(std::uint64_t tag) const;

    std::uint32_t block_size() const { return 1024u << superblock.s_log_block_size(); }
    bool has_incompat(std::uint32_t bits) const { return superblock.has_incompat(bits); }
    bool has_ro_compat(std::uint32_t bits) const { return superblock.has_ro_compat(bits); }

    // --- fields ---
    const unsigned char* inode_filter = nullptr;  // not owned
    std::uint64_t inode_filter_size = 0;
    bool read_only = false;
    Superblock superblock{};
    std::uint32_t volume_type = 0;
    std::u16string volume_label;
    std::uint32_t sectors_per_block = 0;
    std::uint64_t blocks_count = 0;
    std::uint64_t free_blocks = 0;
    std::uint32_t blocks_per_group = 0;
    std::uint32_t first_inode_index = 0;
    std::uint32_t inode_size = 0;
    std::uint32_t inodes_per_block = 0;
    std::uint32_t inodes_per_group = 0;
    std::uint32_t inode_table_blocks = 0;
    std::uint32_t block_shift = 0;  // from blocks to 512-byte units
    std::uint32_t first_data_block = 0;
    std::uint32_t descriptor_blocks = 0;
    std::uint32_t inodes_count = 0;
    std::uint32_t free_inodes = 0;
    std::uint32_t pointers_per_block = 0;
    std::uint32_t groups = 0;
    std::uint32_t descriptor_size = 32;
    std::vector<unsigned char> descriptors;
    std::unique_ptr<ExtfsInodeCache> inode_cache;
    std::unique_ptr<InodeLocationProcessor> legacy_processor;
    std::unique_ptr<InodeLocationProcessor> extents_processor;
    std::unique_ptr<ExtfsAllocation, ExtfsAllocationDeleter> allocation;

private:
    // The mount's steps, in their order; each raises on a refusal.
    void read_superblock();
    void copy_superblock();
    void check_features();
    void read_geometry();
    void check_group_layout();
    void check_counts();
    void load_descriptors();
    void copy_descriptor_block(std::uint64_t block, std::uint64_t offset);
    void check_descriptor_checksums() const;
};

constexpr std::uint32_t kRootIndex = 1;  // inode number 2

// The index of the inode of the directory with id `id`.
constexpr std::uint32_t InodeIndexOfDirectory(std::uint32_t id) { return id == 0 ? kRootIndex : id; }
// The directory id of the directory whose inode has index `index`.
constexpr std::uint32_t DirectoryIdOfInode(std::uint32_t index) { return index == kRootIndex ? 0 : index; }

}  // namespace extfs
