#pragma once
// Makes the backup object of a catalog entry by its id: a hard link's is
// its inode's, a folder's, a symbolic link's, a device's (FIFO and socket
// alike) or a file's. Embedded in the directory and file objects.
#include <cstdint>

#include "fsdriver/file_system_driver.h"

namespace hfsplus {

class HFSPlusDriver;

class HFSPlusBackupObjectFactory {
public:
    explicit HFSPlusBackupObjectFactory(HFSPlusDriver* driver) : driver_(driver) {}

    // A new object, the caller's; FILE_BACKUP for a record of another type.
    FileSystemDriver::BackupObject* Make(std::uint32_t entry_id, std::uint32_t option) const;

private:
    HFSPlusDriver* driver_;  // not owned
};

}  // namespace hfsplus
