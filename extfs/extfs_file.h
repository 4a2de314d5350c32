#pragma once
// One open regular file of an ext volume. Reads go by runs of the inode's
// map: whole blocks of a run in one transfer past the block cache, the
// partial blocks at either end through it, holes and blocks not yet
// written as zeros. The driver has no write path, so every change is
// refused.
#include <cstdint>

#include "extfs/extfs_driver.h"
#include "extfs/extfs_inode_cache.h"
#include "fsdriver/file_object.h"

namespace extfs {

class ExtfsFile : public FileSystemDriver::FileObject {
public:
    // FILE_CORRUPT for an inode that isn't a regular file.
    ExtfsFile(ExtfsDriver* driver, InodeRef inode);

    std::uint64_t size() override { return inode->size(); }
    // The sector that holds the byte; 0 for a byte in a hole, which no sector holds.
    std::uint64_t sector_at(std::uint64_t position) override;
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;
    void set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) override;
    // Nothing is ever held back: there is nothing to write.
    void flush_file() override {}

    InodeRef inode;
    ExtfsDriver* driver;

private:
    // Copies `length` bytes at `offset` of one block, or zeros for a hole.
    void read_partial(unsigned char* out, std::uint64_t physical, std::uint32_t offset, std::uint32_t length);
};

}  // namespace extfs
