#pragma once
// One open file of a volume, shared by every reference that opened it. It
// holds the file system's logic for the file's data and raises
// Common::Error; the positions and modes belong to the references.
#include <cstdint>

#include "fsdriver/file_system_driver.h"
#include "fsdriver/lru_list.h"

class FileSystemDriver::FileObject : public LRUList<FileSystemDriver::FileObject> {
public:
    virtual ~FileObject() = default;

    virtual std::uint64_t size() = 0;
    // The sector of the volume that holds this byte of the file.
    virtual std::uint64_t sector_at(std::uint64_t position) = 0;
    virtual void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) = 0;
    virtual void write(const void* buffer, std::uint64_t position, std::uint64_t size,
                       std::uint64_t& written) = 0;
    virtual void set_size(std::uint64_t size) = 0;
    virtual void set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) = 0;
    // Writes what the file keeps back (sizes, times, allocation) to the cache.
    virtual void flush_file() = 0;
    // Knows "ALCM" and "SFTM"; a concrete file handles its own words first
    // and hands the others here. Unknown words raise FILE_UNSUPPORTED.
    virtual void control(void* block);
    virtual std::uint64_t allocated_ranges(std::uint64_t position, std::uint64_t length);
    virtual BackupObject* new_backup_object(std::uint32_t option);
    virtual RestoreObject* new_restore_object(std::uint32_t option);

    std::uint32_t references = 0;  // FileReferences on this object
    std::uint32_t writers = 0;     // of them, opened for writing
    std::uint32_t plain = 0;       // of them, opened without `shared`

protected:
    FileObject() = default;
};
