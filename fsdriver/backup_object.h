#pragma once
// The two halves of a volume service that copies an entry out as a series
// of typed streams and back in. Each file system that offers it has its
// own; the framework only drives them, between these objects and the
// caller's streams and progress (the "BKUP" and "RSTR" directory requests).
#include <cstddef>
#include <cstdint>

#include "files/dir_object.h"
#include "fsdriver/file_system_driver.h"
#include "loader/common/error.h"

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

// One output stream of a backup; destroying it closes it.
class BackupOutputStream {
public:
    virtual ~BackupOutputStream() = default;
    // An area of `size` bytes to be filled; null when none can be had.
    virtual unsigned char* reserve(std::uint64_t size) = 0;
    // `size` bytes from `start`, inside the area reserved last, go out;
    // 0 gives the area back unused.
    virtual void send(const unsigned char* start, std::uint64_t size) = 0;
};

// One input stream of a restore, with the type of what it holds.
class RestoreInputStream {
public:
    virtual ~RestoreInputStream() = default;
    virtual std::uint32_t type() = 0;
    // Up to `size` bytes; `got` 0 at the end of the stream.
    virtual Common::Error read(void* buffer, std::uint64_t size, std::uint64_t& got) = 0;
};

// What hands out the streams of one backup or restore. The streams it
// hands out belong to the caller.
class BackupStreams {
public:
    virtual ~BackupStreams() = default;
    // A new output stream for data of `type`.
    virtual Common::Error open_output(std::uint32_t type, BackupOutputStream*& stream) = 0;
    // The next input stream; none at the end, or on a failure that error() tells.
    virtual RestoreInputStream* next_input() = 0;
    virtual Common::Error error() = 0;
};

// Told how far a backup or restore has come, and asked whether to stop.
class BackupProgress {
public:
    virtual ~BackupProgress() = default;
    virtual void done(std::uint64_t bytes) = 0;
    virtual bool cancelled() = 0;
};

// What a caller gives with a backup or a restore.
struct BackupRecord {
    BackupStreams* streams;
    BackupProgress* progress;  // or none
    std::uint32_t option;      // handed to the file system's object
};

// The block of the "BKUP" and "RSTR" directory requests.
struct BackupRequest {
    std::uint32_t word;
    std::uint32_t reserved;
    BackupRecord record;
    union {
        i_dir::iterator* entry;  // "BKUP": an entry of the directory, or none for the directory itself
        const char16_t* path;    // "RSTR": where the restored entry goes
    };
};
static_assert(offsetof(BackupRequest, record) == 8, "record of a backup request");
static_assert(offsetof(BackupRequest, entry) == 32, "target of a backup request");
