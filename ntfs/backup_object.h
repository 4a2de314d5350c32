#pragma once
// The backup of one NTFS file or directory as the framework's typed pieces:
// the attributes, the two times, a Win32 backup stream (security, reparse
// data, object id, the data streams) and, for an encrypted file, the raw
// export form. Each producer is a BackupSubObject that knows, once built,
// the kind and buffer size of its next piece; a BackupObject strings
// producers together in order and shows the one under its cursor, so that
// a list is itself a producer of a longer list.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fsdriver/backup_object.h"
#include "ntfs/file_record.h"

namespace ntfs {

class NTFSDriver;

// Kinds of the pieces.
constexpr std::uint32_t kPieceAttributes = 1;
constexpr std::uint32_t kPieceWin32Stream = 2;
constexpr std::uint32_t kPieceRawEncrypted = 3;
constexpr std::uint32_t kPieceTimes = 5;

// Bits of the option of a backup.
constexpr std::uint32_t kBackupWithoutSecurity = 0x1;
constexpr std::uint32_t kBackupPlain = 0x2;
constexpr std::uint32_t kBackupNamedStreamsOnly = 0x4;

// The largest piece of data, and the buffer asked for before a producer knows better.
constexpr std::uint64_t kBackupStep = 0x10000;

// What every producer of one backup works on.
struct BackupSource {
    NTFSDriver* driver;
    RecordRef record;
    std::uint32_t option;
    bool has(std::uint32_t bit) const { return (option & bit) != 0; }
};

// One producer. Built with its first piece's kind and size in place, or
// kind 0 when it has nothing to give.
class BackupSubObject : public FileSystemDriver::BackupObject {
public:
    BackupSubObject() { chunk = kBackupStep; }
};

// An ordered list of producers and a cursor on the first of them that has
// something left; it shows that one's fields and hands it each read.
class BackupObject : public BackupSubObject {
public:
    std::uint64_t read(void* area) override;

protected:
    // Appends a producer; one with nothing to give is passed over.
    void add(std::unique_ptr<FileSystemDriver::BackupObject> part);

private:
    void settle();

    std::vector<std::unique_ptr<FileSystemDriver::BackupObject>> parts_;
    std::size_t cursor_ = 0;
};

// A producer of one piece whose bytes are made up front: the headers and
// the small common pieces.
class BackupPiece : public BackupSubObject {
public:
    std::uint64_t read(void* area) override;

protected:
    BackupPiece() { stream_type = 0; }
    void offer(std::uint32_t kind, std::vector<unsigned char> bytes);

private:
    std::vector<unsigned char> bytes_;
};

// Win32 backup stream ids and stream attributes.
constexpr std::uint32_t kStreamData = 1;
constexpr std::uint32_t kStreamSecurity = 3;
constexpr std::uint32_t kStreamAlternateData = 4;
constexpr std::uint32_t kStreamObjectId = 7;
constexpr std::uint32_t kStreamReparse = 8;
constexpr std::uint32_t kStreamSparseBlock = 9;
constexpr std::uint32_t kStreamContainsSecurity = 2;
constexpr std::uint32_t kStreamSparseAttribute = 8;
constexpr std::uint32_t kWin32HeaderSize = 20;

// The header of one stream of a Win32 backup stream, with its name.
std::vector<unsigned char> Win32StreamHeader(std::uint32_t id, std::uint32_t attributes, std::uint64_t size,
                                             const std::u16string& name);

// The whole backup of a file and of a directory, in the order of the format.
FileSystemDriver::BackupObject* NewFileBackup(NTFSDriver* driver, const RecordRef& record, std::uint32_t option);
FileSystemDriver::BackupObject* NewDirectoryBackup(NTFSDriver* driver, const RecordRef& record,
                                                   std::uint32_t option);

}  // namespace ntfs
