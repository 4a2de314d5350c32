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

    static constexpr std::uint32_t kUseDefaultPermissions = 0xF000;

    // What a new inode is made of.
    struct NewInode {
        std::uint32_t kind;         // of the directory family: KIND_FILE, KIND_DIRECTORY...
        std::uint32_t flags;        // i_flags to inherit, masked by the kind
        std::uint32_t permissions;  // kUseDefaultPermissions for the kind's default
        std::uint32_t major;
        std::uint32_t minor;
    };

    // Reads the inode of `index`; FILE_OPEN for an inode with no links,
    // FILE_CORRUPT for one whose size its kind can't have on this volume.
    ExtfsInode(ExtfsDriver* driver, ExtfsInodeCache* cache, std::uint32_t index);
    // A new inode of `index`, zeroed and dirty, with no links yet.
    ExtfsInode(ExtfsDriver* driver, ExtfsInodeCache* cache, std::uint32_t index, const NewInode& made);
    // Writes the inode if it changed, and leaves the cache.
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

    // --- changes (inode_metadata.cpp) ---
    // The record to change; the inode becomes dirty.
    InodeRecord& writable();
    void set_permissions(std::uint32_t bits);
    void set_owner(std::uint32_t uid, std::uint32_t gid);
    void set_flag(std::uint32_t bits);
    void clear_flag(std::uint32_t bits);
    void set_modified(file_time time);
    void set_changed(file_time time);
    void set_accessed(file_time time);
    void set_created(file_time time);
    // One name more or less; new objects get their times here.
    void add_link();
    void drop_link();
    // A name of this inode goes: frees the data and the inode with the last.
    void unlink();
    void set_symlink_target(const std::string& text);
    // Puts a changed inode into its cached block of the inode table.
    void flush();

    // --- changes of the data (inode_data.cpp) ---
    // `i_blocks` from a count of file-system blocks.
    void set_blocks(std::uint64_t count);
    // Maps logical `block` and answers its physical block.
    std::uint64_t allocate_block(std::uint64_t block, bool unwritten);
    // Maps up to `count` blocks from logical `block`, for as long as each
    // new block follows the one before; `got` of them. A full disk after
    // the first block ends the run short.
    std::uint64_t allocate_run(std::uint64_t block, std::uint64_t count, std::uint64_t& got, bool unwritten);
    // Unmaps and frees [first, first + count), and behind the size too
    // when the range reaches the last block.
    void release_blocks(std::uint64_t first, std::uint64_t count);
    // Truncates or extends; an extension is a hole.
    void set_size(std::uint64_t size);
    // The size field alone, checked against what the kind allows.
    void set_size_field(std::uint64_t size);

private:
    // Zeros where an extension reaches blocks that are mapped already.
    void zero_behind(std::uint64_t old_size, std::uint64_t new_size);
    // The record, once `size` is known to suit the inode's kind.
    InodeRecord& record_for_size(std::uint64_t size);

public:
    // Where the inode lies in the inode table: the block, and the byte in it.
    std::uint64_t table_block() const;
    std::uint32_t table_offset() const;

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
