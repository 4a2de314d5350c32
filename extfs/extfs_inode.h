#pragma once
// One inode in memory: a private copy of its on-disk bytes, the map reader
// chosen by its flags, and the walk that keeps the map's last blocks in
// hand. Directories, files and iterators all read through it; its
// accessors check what they answer, so damage is met as FILE_CORRUPT where
// it is used.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "extfs/ext_records.h"
#include "extfs/extfs_driver.h"
#include "extfs/location_processor.h"
#include "files/dir_object.h"
#include "fsdriver/lru_list.h"
#include "fsdriver/reference_count.h"

namespace extfs {

class ExtfsInodeCache;

class ExtfsInode : public ReferenceCount, public LRUList<ExtfsInode> {
public:
    static constexpr std::uint32_t kExtentsFlag = 0x80000;
    static constexpr std::uint32_t kHugeFileFlag = 0x40000;
    static constexpr std::uint32_t kIndexFlag = 0x1000;

    // Reads the inode of `index`; FILE_OPEN for an inode with no links,
    // FILE_CORRUPT for one whose size its kind can't have on this volume.
    ExtfsInode(ExtfsDriver* driver, ExtfsInodeCache* cache, std::uint32_t index);
    ~ExtfsInode() override;

    const InodeRecord& record() const { return *reinterpret_cast<const InodeRecord*>(raw.data()); }
    std::uint16_t mode() const { return record().i_mode(); }
    // The kind of the directory family; FILE_CORRUPT for a type outside the format.
    std::uint32_t kind() const;
    bool is_directory() const;
    bool is_regular() const;
    bool is_symlink() const;
    std::uint64_t size() const;
    // The largest size an inode of this kind can have on this volume.
    std::uint64_t largest_size() const;
    std::uint32_t links() const;
    std::uint32_t uid() const { return record().i_uid(); }
    std::uint32_t gid() const { return record().i_gid(); }
    std::uint32_t device_major() const;
    std::uint32_t device_minor() const;
    // Times in milliseconds since 1970.
    file_time modified() const;
    file_time changed() const;
    file_time accessed() const;
    file_time created() const;
    // `i_blocks` in file-system blocks.
    std::uint64_t blocks() const;
    // Whether the inode owns data blocks beyond an extended-attribute block.
    bool has_data() const;
    // The first block of the map, 0 when the inode has no data.
    std::uint64_t first_block();
    // The physical block of logical `block`, kNoBlock for a hole (also a
    // block not yet written); `count` blocks from there behave alike.
    std::uint64_t map_block(std::uint64_t block, std::uint64_t& count);
    // The target of a symbolic link; empty for any other inode.
    const std::string& symlink_target();

    std::uint32_t index;
    ExtfsDriver* driver;
    // The inode's bytes, zero-filled up to the size of the record.
    std::vector<unsigned char> raw;
    std::string target;
    bool dirty = false;
    InodeLocationProcessor* processor = nullptr;
    ExtfsInodeCache* cache;
    std::unique_ptr<ExtfsBlockWalk> walk;
};

// The kind of the directory family for an `i_mode`; FILE_CORRUPT for a
// file type outside the format.
std::uint32_t KindOfMode(std::uint16_t mode);

}  // namespace extfs
