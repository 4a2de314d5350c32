#pragma once
// The two halves of a volume service that copies an entry out as a series
// of typed streams and back in. Each file system that offers it has its
// own; the framework only drives them.
#include <cstdint>

#include "fsdriver/file_system_driver.h"

class FileSystemDriver::BackupObject {
public:
    virtual ~BackupObject() = default;
    // Fills `area` with up to `chunk` bytes of the current stream and
    // answers how many; `stream_type` 0 means no more data.
    virtual std::uint64_t read(void* area) = 0;

    std::uint32_t stream_type = 0;
    std::uint64_t chunk = 0;
    std::uint64_t alignment = 1;
};

class FileSystemDriver::RestoreObject {
public:
    virtual ~RestoreObject() = default;
    virtual void write(std::uint32_t stream_type, const void* data, std::uint64_t size) = 0;
};
