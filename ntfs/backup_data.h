#pragma once
// The data attributes of a record as streams of the Win32 backup stream:
// each a header, then its contents in steps, or for a sparse attribute a
// header and one block per range that holds data.
#include <vector>

#include "ntfs/backup_object.h"

namespace ntfs {

// The data attributes of the record in its order, each held: every one,
// or only the named ones.
std::vector<AttributeRef> DataAttributes(const RecordRef& record, bool with_unnamed);

// Every data attribute of a file (the unnamed one left out under option
// bit 2); nothing for an encrypted file, whose contents take the raw form.
class BackupFileData : public BackupObject {
public:
    explicit BackupFileData(const BackupSource& source);
};

// The named data attributes of a directory.
class BackupDirectoryData : public BackupObject {
public:
    explicit BackupDirectoryData(const BackupSource& source);
};

}  // namespace ntfs
