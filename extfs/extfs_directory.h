#pragma once
// One ext directory: a file of whole blocks filled with directory entries.
// Every directory is read as a plain list and searched from the top by
// name bytes; an indexed directory reads the same way, because its index
// blocks look like one unused entry that fills the block. One directory
// block is kept in hand at a time.
#include <cstdint>
#include <string>

#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/block_handle.h"
#include "fsdriver/directory_object.h"

namespace extfs {

// An entry as the walk found it, copied out of its block.
struct DirEntryCopy {
    std::uint64_t position = 0;  // byte offset of the entry in the directory
    std::uint32_t inode = 0;     // inode number, not index
    std::uint8_t file_type = 0;
    std::string name;
};

// The key of an identifier: the directory block of the entry as a u32,
// then the name bytes with an ending 0.
struct ExtfsIdentifier {
    static constexpr std::uint32_t kNameOffset = 4;
    static file_identifier* make(const std::u16string& name, std::uint32_t entry_block, const std::string& bytes);
    // False for an identifier that this driver didn't make.
    static bool parse(const file_identifier& identifier, std::uint32_t& entry_block, std::string& bytes);
};

// Checks the entry at `entry`, which has `rest` bytes up to the end of its
// block, at byte `position` of the directory whose inode has index
// `directory_index`. True for an entry to show; false for an unused one,
// one hidden by the inode filter, or a dot entry while `skip_dots`.
// FILE_CORRUPT for damage.
bool CheckEntry(const ExtfsDriver& driver, const unsigned char* entry, std::uint32_t rest, std::uint64_t position,
                std::uint32_t directory_index, bool skip_dots);

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

    // Changes: this driver has no write path.
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

    // --- the walk ---
    std::uint64_t size() const { return inode->size(); }
    // The start of the directory block that holds byte `position`.
    const unsigned char* entry_block(std::uint64_t position);
    // The next entry to show from `position` on; `position` ends behind it.
    bool next_entry(DirEntryCopy& entry, std::uint64_t& position, bool skip_dots);
    // Searches `name` among the entries from `position` up to `limit`, dot
    // entries included. Found: `position` is the entry's own offset.
    bool search(const std::string& name, DirEntryCopy& entry, std::uint64_t& position, std::uint64_t limit);
    // Searches the block of the hint first, then the whole directory.
    bool find_entry(const std::string& name, DirEntryCopy& entry, std::uint64_t hint);
    // The entry of `name`; FILE_NOT_FOUND when there is none.
    DirEntryCopy entry_named(const std::u16string& name);
    FileObject* open_entry(const DirEntryCopy& entry);

    ExtfsDriver* ext;
    InodeRef inode;
    BlockHandle current_block;
    std::uint64_t current_index = ExtfsDriver::kNoBlock;
};

}  // namespace extfs
