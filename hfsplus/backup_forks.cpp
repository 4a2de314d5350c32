#include "hfsplus/backup_forks.h"

#include "hfsplus/catalog_record.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

const HFSPlusCatalogFile& FileOf(const CatalogRecord& record) {
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    return record.file();
}

}  // namespace

HFSPlusBackupDataFork::HFSPlusBackupDataFork(HFSPlusDriver& driver, const CatalogRecord& record, bool skip) {
    const HFSPlusCatalogFile& file = FileOf(record);
    Append(kPieceAttributeDataFork, allocator.aggregate.extents, driver, file.fileID(), file.dataFork(), skip);
    Settle();
}

HFSPlusBackupResourceFork::HFSPlusBackupResourceFork(HFSPlusDriver& driver, const CatalogRecord& record) {
    const HFSPlusCatalogFile& file = FileOf(record);
    Append(kPiecePosixExtendedAttributes, allocator.aggregate.head, "com.apple.ResourceFork",
           file.resourceFork().logicalSize());
    Append(kPieceAttributeDataFork, allocator.aggregate.extents, driver, file.fileID(), file.resourceFork());
    Settle();
}

HFSPlusBackupFinderInfo::HFSPlusBackupFinderInfo(const CatalogRecord& record) {
    Append(kPiecePosixExtendedAttributes, allocator.aggregate.head, "com.apple.FinderInfo",
           HFSPlusBackupFinderInfoContent::kSize);
    Append(kPieceFinderInfo, allocator.aggregate.content, record);
    Settle();
}

}  // namespace hfsplus
