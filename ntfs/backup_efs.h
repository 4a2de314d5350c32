#pragma once
// The raw export form of an encrypted file or directory: a fixed header
// with the $EFS stream, then each data attribute as a stream of data
// segments holding the stored (still encrypted) bytes. Nothing here can be
// decrypted, and nothing needs to be: the bytes pass through as they lie.
// With option bit 1, or on an entry that isn't encrypted, both are empty.
#include "ntfs/backup_object.h"

namespace ntfs {

class BackupEFSStream : public BackupPiece {
public:
    explicit BackupEFSStream(const BackupSource& source);
};

class BackupEFSData : public BackupObject {
public:
    explicit BackupEFSData(const BackupSource& source);
};

}  // namespace ntfs
