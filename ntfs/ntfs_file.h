#pragma once
// One open file of an NTFS volume: its record held, and its unnamed data
// stream. Reads and writes put the sector-aligned middle of a request
// straight between the caller's buffer and the disk, a run at a time past
// the block cache; the ends come through the cache.
//
// NTFS keeps a file's times, sizes and attributes twice: in the record
// ($STANDARD_INFORMATION and every $FILE_NAME) and in the key of each index
// entry that names the file. NTFSFileObject, the part that files and
// directories share, brings all of them in step at once.
#include <cstdint>
#include <vector>

#include "fsdriver/file_object.h"
#include "ntfs/file_record.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

// The fields of one metadata update; a null pointer leaves its field alone.
struct MetadataUpdate {
    const std::uint64_t* created = nullptr;
    const std::uint64_t* modified = nullptr;
    const std::uint64_t* accessed = nullptr;
    const std::uint32_t* attributes = nullptr;
    const std::uint64_t* allocated_size = nullptr;
    const std::uint64_t* data_size = nullptr;
    const std::uint32_t* reparse_tag = nullptr;
};

// The attribute bits that a file's user may set: read only, hidden, system,
// archive, temporary, offline, not content indexed.
constexpr std::uint32_t kUserAttributeMask = 0x3127;

class NTFSFileObject {
public:
    NTFSFileObject(NTFSDriver* driver, RecordRef record) : driver(driver), record(std::move(record)) {}
    virtual ~NTFSFileObject() = default;

    // Times in the volume's units (100 ns from 1601). From this call on,
    // automatic updates leave the times alone.
    void setTimes(const std::uint64_t* created, const std::uint64_t* modified, const std::uint64_t* accessed);
    // The user's bits under kUserAttributeMask; the others stay.
    void setAttributes(std::uint32_t value);
    // The attributes of $STANDARD_INFORMATION; FILE_CORRUPT without it.
    std::uint32_t attributes();
    // The file's descriptor, self-relative, as ReadSecurity reads it.
    std::vector<unsigned char> security();
    // Stores a self-relative descriptor: in the file's own security
    // attribute on a 1.2 volume or where the file has one, else in $Secure
    // under a shared id.
    void setSecurity(const void* descriptor, std::uint32_t length);
    // Step one brings $STANDARD_INFORMATION up to date, step two every
    // $FILE_NAME and the key of its parent's index entry. `masked`: the
    // attributes change only under kUserAttributeMask. The record is
    // flushed.
    void updateMetadata(const MetadataUpdate& update, bool masked);
    // The volume's time of now.
    static std::uint64_t Now();
    // The framework's time (ms from 1970) in the volume's units.
    static std::uint64_t VolumeTime(std::int64_t framework_time);

    NTFSDriver* driver;
    RecordRef record;
    // Whether updates may touch the times: set for a new object, cleared
    // once the times were set explicitly.
    bool update_times = true;

private:
    bool updateStandardInformation(const MetadataUpdate& update, bool masked);
    void updateFileNames(const MetadataUpdate& update, bool masked);
};

class NTFSFile : public FileSystemDriver::FileObject, public NTFSFileObject {
public:
    // Opens the unnamed data stream (none: FILE_CORRUPT) and enters the
    // file in the driver's open files.
    NTFSFile(NTFSDriver* driver, RecordRef record);
    ~NTFSFile() override;

    std::uint64_t size() override { return stream_->size(); }
    std::uint64_t sector_at(std::uint64_t position) override { return stream_->physicalPosition(position); }
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override;
    // Writes what fits: `written` below `size` means the volume filled up;
    // FILE_DISK_FULL when not a byte fit.
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;
    void set_times(std::uint64_t modified, std::uint64_t created, std::uint64_t accessed) override;
    // Times of now and the stream's sizes into the record and every key.
    void flush_file() override;
    // "IBSI" reads the whole record through; the rest as the base does.
    void control(void* block) override;
    // A heap block of u64s: the count of pairs, then (position, length)
    // of each range that holds data.
    std::uint64_t allocated_ranges(std::uint64_t position, std::uint64_t length) override;
    // The file's attributes, times, Win32 backup stream and raw encrypted
    // form, as the option bits choose.
    FileSystemDriver::BackupObject* new_backup_object(std::uint32_t option) override;
    // The file filled again from the streams of a backup (restore_object.cpp).
    FileSystemDriver::RestoreObject* new_restore_object(std::uint32_t option) override;

private:
    // A transfer cut in three: a head through the cache up to the first
    // sector boundary, a middle of whole sectors straight between the
    // caller's buffer and the disk, and a tail through the cache. A middle
    // of 0 sends everything through the cache.
    struct TransferParts {
        std::uint64_t head;
        std::uint64_t middle;
        std::uint64_t tail;
    };
    void zeroGrownArea(std::uint64_t from, std::uint64_t to);
    TransferParts splitTransfer(std::uint64_t position, std::uint64_t length, const void* buffer,
                                bool buffer_must_align) const;
    // Head, middle and tail of a write, `written` counting as they go.
    void writeParts(const unsigned char* in, std::uint64_t position, std::uint64_t length, std::uint64_t& written);

    AttributeRef stream_;
};

}  // namespace ntfs
