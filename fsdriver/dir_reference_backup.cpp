#include "fsdriver/dir_reference_backup.h"

#include <cstdint>
#include <memory>
#include <vector>

#include "fsdriver/directory_object.h"
#include "loader/common/raise.h"
#include "fsdriver/file_object.h"
#include "fsdriver/file_reference.h"

namespace {

// A restore moves data in steps of this size, through one buffer.
constexpr std::uint64_t kRestoreStep = 0x40000;
// The first byte of a restored entry's attributes marks a directory so.
constexpr unsigned char kDirectoryAttribute = 0x10;
// The stream that carries an entry's attributes, and must come first.
constexpr std::uint32_t kAttributeStream = 1;
// Handed to the restore object once the streams are done.
constexpr std::uint32_t kEndOfStreams = 0;

// Lets go of a held lock for a scope; the caller had it and gets it back.
class LockGap {
public:
    explicit LockGap(DriverLock& lock) : lock_(lock) { lock_.unlock(); }
    ~LockGap() { lock_.lock(); }
    LockGap(const LockGap&) = delete;
    LockGap& operator=(const LockGap&) = delete;

private:
    DriverLock& lock_;
};

// Keeps a directory object from being evicted while the restore stands on it.
class DirectoryHold {
public:
    explicit DirectoryHold(FileSystemDriver::DirectoryObject& object) : object_(object) { ++object_.references; }
    ~DirectoryHold() { --object_.references; }
    DirectoryHold(const DirectoryHold&) = delete;
    DirectoryHold& operator=(const DirectoryHold&) = delete;

private:
    FileSystemDriver::DirectoryObject& object_;
};

void CheckCancelled(BackupProgress* progress) {
    if (progress != nullptr && progress->cancelled()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CANCELLED);
    }
}

void TellProgress(BackupProgress* progress, std::uint64_t total) {
    if (progress != nullptr) progress->done(total);
}


std::unique_ptr<BackupOutputStream> OpenOutput(BackupStreams& streams, std::uint32_t type) {
    BackupOutputStream* stream = nullptr;
    Common::Error status = streams.open_output(type, stream);
    if (status.Failed()) throw status;
    if (stream == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    return std::unique_ptr<BackupOutputStream>(stream);
}

// The first address at or above `area` that is a multiple of `alignment`.
unsigned char* AlignUp(unsigned char* area, std::uint64_t alignment) {
    std::uint64_t miss = reinterpret_cast<std::uintptr_t>(area) % alignment;
    return miss == 0 ? area : area + (alignment - miss);
}

// The object that a restore writes to, and what holds the entry it makes.
struct RestoreTarget {
    std::unique_ptr<FileSystemDriver::FileReference> file;
    std::unique_ptr<FileSystemDriver::RestoreObject> object;
};

std::uint32_t ExistingDirectory(FileSystemDriver::DirectoryObject& parent, const std::u16string& leaf) {
    try {
        return parent.lookup_directory(leaf);
    } catch (const Common::Error& error) {
        if (error.Code() != Common::FILE_OPEN) throw;
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND, error);
    }
}

// Made from the first data, which are the entry's attributes.
void MakeTarget(FileSystemDriver& driver, FileSystemDriver::DirectoryObject& parent, const std::u16string& leaf,
                std::uint32_t option, std::uint32_t type, const unsigned char* data, std::uint64_t size,
                RestoreTarget& target) {
    if (type != kAttributeStream || size < 4) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if ((data[0] & kDirectoryAttribute) != 0) {
        std::uint32_t id = ExistingDirectory(parent, leaf);
        target.object.reset(driver.get_object(id)->new_restore_object(option));
    } else {
        FileSystemDriver::FileObject* created = parent.create_file(leaf);
        try {
            target.file.reset(new FileSystemDriver::FileReference(&driver, created, true, false));
        } catch (...) {
            if (created->references == 0) delete created;
            throw;
        }
        target.object.reset(created->new_restore_object(option));
    }
    if (target.object == nullptr) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
}

}  // namespace

void DriveBackup(FileSystemDriver& driver, FileSystemDriver::BackupObject& source, const BackupRecord& record) {
    if (record.streams == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    LockGap gap(driver.file_lock);
    std::unique_ptr<BackupOutputStream> output;
    std::uint32_t output_type = 0;
    std::uint64_t total = 0;
    while (source.stream_type != 0) {
        CheckCancelled(record.progress);
        if (output == nullptr || source.stream_type != output_type) {
            output.reset();
            output_type = source.stream_type;
            output = OpenOutput(*record.streams, output_type);
        }
        std::uint64_t chunk = source.chunk;
        std::uint64_t alignment = source.alignment == 0 ? 1 : source.alignment;
        if (chunk > UINT64_MAX - alignment) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        unsigned char* area = output->reserve(chunk + alignment - 1);
        if (area == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
        unsigned char* start = AlignUp(area, alignment);
        std::uint64_t got;
        {
            DriverLockHold hold(driver.file_lock);
            got = source.read(start);
        }
        if (got > chunk) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        output->send(start, got);
        if (got == 0) continue;
        total += got;
        TellProgress(record.progress, total);
    }
}

void DriveRestore(FileSystemDriver& driver, FileSystemDriver::DirectoryObject& parent, const std::u16string& leaf,
                  const BackupRecord& record) {
    if (record.streams == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    DirectoryHold hold_parent(parent);
    std::vector<unsigned char> buffer(kRestoreStep);
    RestoreTarget target;
    LockGap gap(driver.file_lock);
    std::unique_ptr<RestoreInputStream> stream;
    bool fresh = false;
    std::uint64_t total = 0;
    for (;;) {
        CheckCancelled(record.progress);
        if (stream == nullptr) {
            stream.reset(record.streams->next_input());
            if (stream == nullptr) break;
            fresh = true;
        }
        std::uint64_t got = 0;
        Common::Error status = stream->read(buffer.data(), buffer.size(), got);
        if (status.Failed()) throw status;
        if (got > buffer.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        // A stream that was empty from the start is still handed on once.
        if (got == 0 && !fresh) {
            stream.reset();
            continue;
        }
        fresh = false;
        {
            DriverLockHold hold(driver.file_lock);
            std::uint32_t type = stream->type();
            if (target.object == nullptr) {
                MakeTarget(driver, parent, leaf, record.option, type, buffer.data(), got, target);
            }
            target.object->write(type, buffer.data(), got);
        }
        total += got;
        TellProgress(record.progress, total);
    }
    Common::Error status = record.streams->error();
    if (status.Failed()) throw status;
    if (target.object == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // Type 0, as a backup's end is shown: a restore object learns that no
    // more data comes, and can refuse a stream that stopped inside a record
    // while the request can still say so.
    DriverLockHold hold(driver.file_lock);
    target.object->write(kEndOfStreams, nullptr, 0);
}
