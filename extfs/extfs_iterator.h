#pragma once
// Positions on ext directory entries. Each is a copy of all that a caller
// can ask about its entry, taken when it comes to stand there, so asking
// reads nothing. The base class stands on one entry only; ExtfsIterator
// walks on through the directory with a walker that reads copies of the
// blocks, so a change behind its back doesn't disturb the block it is in.
#include <cstdint>
#include <string>

#include "extfs/directory_walker.h"
#include "extfs/extfs_directory.h"
#include "fsdriver/iterator_object.h"

namespace extfs {

class ExtfsBaseIterator : public FileSystemDriver::IteratorObject {
public:
    // Fills the copy from the entry and its inode; FILE_OPEN for an inode
    // with no links.
    ExtfsBaseIterator(ExtfsDriver* driver, std::uint32_t directory_id, const DirEntryCopy& entry,
                      std::uint32_t block_size);

    bool next() override;
    file_identifier* identifier() override;
    std::u16string name() override { return name_text; }
    std::uint64_t size() override { return byte_size; }
    std::uint64_t allocated_size() override { return allocated; }
    std::uint32_t kind() override;
    file_time modified() override { return modified_time; }
    file_time changed() override { return changed_time; }
    file_time created() override { return created_time; }
    file_time accessed() override { return accessed_time; }
    bool hidden() override { return !name_bytes.empty() && name_bytes[0] == '.'; }
    std::uint64_t object_id() override { return inode_index; }
    std::uint64_t first_sector() override { return first; }
    std::uint32_t permissions() override { return mode & 0xFFF; }
    std::uint32_t links() override { return link_count; }
    std::uint32_t owner() override { return owner_id; }
    std::uint32_t group() override { return group_id; }
    std::uint32_t device_major() override { return major; }
    std::uint32_t device_minor() override { return minor; }
    std::u16string link_target() override { return target; }

    std::uint32_t directory_id;
    std::uint32_t inode_index = 0;
    std::uint32_t entry_block = 0;
    std::string name_bytes;
    std::u16string name_text;
    std::uint16_t mode = 0;
    std::u16string target;
    std::uint64_t byte_size = 0;
    std::uint64_t allocated = 0;
    file_time modified_time = 0, changed_time = 0, created_time = 0, accessed_time = 0;
    std::uint32_t link_count = 0;
    std::uint32_t owner_id = 0, group_id = 0, major = 0, minor = 0;
    std::uint64_t first = 0;

protected:
    void fill(const DirEntryCopy& entry, std::uint32_t block_size);

    ExtfsDriver* driver_;
};

class ExtfsIterator : public ExtfsBaseIterator {
public:
    // Stands on `entry`, which `walker` has just found; the walk goes on
    // from `position`, behind it.
    ExtfsIterator(ExtfsDriver* driver, std::uint32_t directory_id, DirectoryWalker walker, const DirEntryCopy& entry,
                  std::uint64_t position);

    bool next() override;

private:
    DirectoryWalker walker_;
    std::uint64_t position_;  // behind the current entry
};

}  // namespace extfs
