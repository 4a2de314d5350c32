#pragma once
// One open file of an NTFS volume: its record held, and its unnamed data
// stream. Reads put the sector-aligned middle of a request straight into
// the caller's buffer, a run at a time past the block cache; the ends come
// through the cache. Every change is refused until the volume's write path
// exists.
#include <cstdint>

#include "fsdriver/file_object.h"
#include "ntfs/file_record.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

class NTFSFile : public FileSystemDriver::FileObject {
public:
    // Opens the unnamed data stream (none: FILE_CORRUPT) and enters the
    // file in the driver's open files.
    NTFSFile(NTFSDriver* driver, RecordRef record);
    ~NTFSFile() override;

    std::uint64_t size() override { return stream_->size(); }
    std::uint64_t sector_at(std::uint64_t position) override { return stream_->physicalPosition(position); }
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;
    void set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) override;
    // Nothing is ever held back: there is nothing to write.
    void flush_file() override {}
    // "IBSI" reads the whole record through; the rest as the base does.
    void control(void* block) override;
    // A heap block of u64s: the count of pairs, then (position, length)
    // of each range that holds data.
    std::uint64_t allocated_ranges(std::uint64_t position, std::uint64_t length) override;

    NTFSDriver* driver;
    RecordRef record;

private:
    AttributeRef stream_;
};

}  // namespace ntfs
