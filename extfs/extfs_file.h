#pragma once
// One open regular file of an ext volume. Reads and writes go by runs of
// the inode's map: whole blocks of a run in one transfer past the block
// cache, the partial blocks at either end through it. Holes and blocks not
// yet written read as zeros; a write into a hole maps blocks there, as
// many in one run as the allocator hands out one behind the other.
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
    // The times of a file that was written, then the inode.
    void flush_file() override;
    std::uint64_t allocated_ranges(std::uint64_t position, std::uint64_t length) override;
    FileSystemDriver::BackupObject* new_backup_object(std::uint32_t option) override;

    InodeRef inode;
    ExtfsDriver* driver;
    bool changed = false;

private:
    void write_runs(const unsigned char* in, std::uint64_t position, std::uint64_t size, std::uint64_t& written);
    // The run of blocks under `position`, mapped first where it is a hole
    // (`fresh` then). A run of 0 when the volume is full.
    std::uint64_t run_for_write(std::uint64_t position, std::uint64_t remaining, std::uint64_t& run, bool& fresh);
    // Copies `length` bytes into block `physical` at `offset`, through the
    // cache. A block that holds nothing of the file yet isn't read.
    void write_partial(const unsigned char* in, std::uint64_t physical, std::uint64_t block_start,
                       std::uint32_t offset, std::uint32_t length, bool fresh);
    // Copies `length` bytes at `offset` of one block, or zeros for a hole.
    void read_partial(unsigned char* out, std::uint64_t physical, std::uint32_t offset, std::uint32_t length);
};

}  // namespace extfs
