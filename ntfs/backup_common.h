#pragma once
// The pieces that files and directories share: the attributes, the two
// times, and the security, reparse and object id streams of the Win32
// backup stream.
#include <cstdint>

#include "ntfs/backup_object.h"
#include "ntfs/ntfs_records.h"

namespace ntfs {

// The encrypted bit of the file attributes.
constexpr std::uint32_t kAttributeEncrypted = 0x4000;

// The 0x30 bytes of $STANDARD_INFORMATION that every version has;
// FILE_CORRUPT when the record has less.
StandardInformation ReadStandardInformation(const RecordRef& record);

// Whether the record's contents go out in the raw form rather than as data.
bool TakesRawForm(const BackupSource& source);

class BackupAttributes : public BackupPiece {
public:
    explicit BackupAttributes(const BackupSource& source);
};

// The modification and creation time, in the framework's milliseconds.
class BackupFileTimes : public BackupPiece {
public:
    explicit BackupFileTimes(const BackupSource& source);
};

// The descriptor is read at the first read, which answers 0 and asks for
// room for the header and the descriptor; the second gives them.
class BackupSecurity : public BackupSubObject {
public:
    explicit BackupSecurity(const BackupSource& source);
    std::uint64_t read(void* area) override;

private:
    BackupSource source_;
    std::vector<unsigned char> piece_;
};

// Only where the record has a reparse point.
class BackupReparse : public BackupPiece {
public:
    explicit BackupReparse(const BackupSource& source);
};

// Only on volumes of version 3.0 or later, for a record with an object id.
class BackupObjectIds : public BackupPiece {
public:
    explicit BackupObjectIds(const BackupSource& source);
};

}  // namespace ntfs
