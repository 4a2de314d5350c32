#pragma once
// One ext directory. Lookups walk its entries from the top and compare
// name bytes, through the directory walker, holding one cached directory
// block at a time; listings walk with iterators of their own. Changes keep
// the linear format: a new name goes into the slack behind the last live
// entry of a block, or into a new block; a removed name leaves an unused
// entry; an indexed directory stops being indexed at its first new name.
#include <cstdint>
#include <string>

#include "extfs/directory_walker.h"
#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/block_handle.h"
#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"

namespace extfs {

// The bytes an entry with a name of `length` bytes takes at least: the
// fixed part and the name, rounded up to 4.
constexpr std::uint64_t EntrySpace(std::uint64_t length) { return (length + 11) & ~std::uint64_t(3); }

// The key of an identifier: the directory block of the entry as a u32,
// then the name bytes with an ending 0.

struct ExtfsIdentifier {
    static constexpr std::uint32_t kNameOffset = 4;
    static file_identifier* make(const std::u16string& name, std::uint32_t entry_block, const std::string& bytes);
    // False for an identifier that this driver didn't make.
    static bool parse(const file_identifier& identifier, std::uint32_t& entry_block, std::string& bytes);
};

class ExtfsDirectory : public FileSystemDriver::DirectoryObject {
public:
    using IteratorObject = FileSystemDriver::IteratorObject;
    using FileObject = FileSystemDriver::FileObject;

    // FILE_CORRUPT for an inode that isn't a directory of whole blocks.
    ExtfsDirectory(ExtfsDriver* driver, std::uint32_t id);

    IteratorObject* begin() override;
    IteratorObject* find(const std::u16string& name) override;
    IteratorObject* find(const file_identifier& entry) override;
    std::uint32_t lookup_directory(const std::u16string& name) override;
    FileObject* open_file(const std::u16string& name) override;
    FileObject* open_file(IteratorObject& entry) override;
    FileObject* open_file(const file_identifier& entry) override;
    // The backup of this directory itself without an entry; of the entry's
    // inode otherwise, which must stand in this directory (FILE_OPEN).
    FileSystemDriver::BackupObject* new_backup_object(IteratorObject* entry, std::uint32_t option) override;

    // Changes (directory_changes.cpp). Each refuses on a volume held read
    // only before it touches anything.
    FileObject* create_file(const std::u16string& name) override;
    void remove_file(const std::u16string& name) override;
    void remove_directory_entry(const std::u16string& name) override;
    void make_directory(const std::u16string& name) override;
    void rename_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void link_entry(const std::u16string& name, DirectoryObject& target, const std::u16string& new_name) override;
    void symlink_entry(const std::u16string& name, const std::u16string& target) override;
    void set_attributes(const std::u16string& name, std::uint32_t value) override;
    void set_permissions(const std::u16string& name, std::uint32_t value) override;
    void set_owner(const std::u16string& name, std::uint32_t owner, std::uint32_t group) override;
    void set_times(const std::u16string& name, std::uint64_t modified, std::uint64_t created,
                   std::uint64_t accessed) override;
    void make_node(const std::u16string& name, std::uint32_t kind, std::uint32_t permissions, std::uint32_t major,
                   std::uint32_t minor) override;

    // --- lookups ---
    std::uint64_t size() const { return inode->size(); }
    // Searches `name` among the entries from `position` up to `limit`, dot
    // entries included. Found: `position` is the entry's own offset. With
    // `free`, also where a new entry of `name` would go: the first live
    // entry that ends its block with room behind it, else `limit`.
    bool search(const std::string& name, DirEntryCopy& entry, std::uint64_t& position, std::uint64_t limit,
                std::uint64_t* free = nullptr);
    // Searches the block of the hint first, then the whole directory.
    bool find_entry(const std::string& name, DirEntryCopy& entry, std::uint64_t hint);
    // The entry of `name` by find_entry; `miss` is raised when there is none.
    DirEntryCopy lookup(const std::string& name, std::uint64_t hint, const Common::Failure& miss);
    // The entry an identifier names, with its entry block as the hint;
    // `miss` for none, and for an identifier this driver didn't make.
    DirEntryCopy lookup(const file_identifier& identifier, const Common::Failure& miss);
    FileObject* open_entry(const DirEntryCopy& entry);

    // --- change steps (directory_changes.cpp) ---
    // An unused entry that holds `name`, ready for the caller to make it
    // live by its inode and name length, the last step of each change.
    struct Slot {
        BlockHandle block;
        DirEntryRecord* entry;
    };
    // FILE_CREATE for a name that can't be one, FILE_EXISTS for a name
    // that is there. Grows the directory by a block when no block has room.
    Slot new_slot(const std::string& name, std::uint32_t kind);
    // A new object `name` of `kind` with its first link.
    InodeRef new_entry(const std::string& name, std::uint32_t kind, const std::string& target,
                       std::uint32_t permissions, std::uint32_t major, std::uint32_t minor);
    // The first block of the new directory `made`: "." and "..".
    void make_directory_block(ExtfsInode& made);
    void remove_entry(const std::string& name, bool directory);
    // The inode of the entry `name`; FILE_OPEN when there is none.
    InodeRef entry_inode(const std::u16string& name);
    // The cached directory block that holds byte `position`, through the first-write gate.
    BlockHandle writable_block(std::uint64_t position);
    // The file_type of `kind` where the volume keeps types in entries, else 0.
    std::uint8_t file_type_of(std::uint32_t kind) const;

    ExtfsDriver* ext;
    InodeRef inode;
    DirectoryWalker walker;
};

}  // namespace extfs
