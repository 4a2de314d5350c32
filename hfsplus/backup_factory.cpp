#include "hfsplus/backup_factory.h"

#include "hfsplus/backup_entries.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

FileSystemDriver::BackupObject* HFSPlusBackupObjectFactory::Make(std::uint32_t entry_id, std::uint32_t option) const {
    CatalogFile& catalog = driver_->metadata().GetCatalogFile();
    CatalogRecord record = catalog.GetRecordById(entry_id);
    if (record.is_folder()) return new HFSPlusDirectoryBackupObject(*driver_, record);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    if (CatalogFile::IsHardLink(record)) {
        // The content, the times and the attributes are the inode's.
        record = catalog.ResolveHardLink(entry_id);
        return new HFSPlusFileBackupObject(*driver_, record, option);
    }
    if (record.mode_type() == kModeSymlink) return new HFSPlusBackupSymlinkObject(*driver_, record);
    if (CatalogFile::IsDeviceRecord(record)) return new HFSPlusBackupDeviceObject(*driver_, record);
    return new HFSPlusFileBackupObject(*driver_, record, option);
}

}  // namespace hfsplus
