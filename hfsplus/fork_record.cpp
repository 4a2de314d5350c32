// The catalog record of a file whose fork changes: fetched afresh for each
// change, its dates and fork stored back over the record in its node.
#include "hfsplus/catalog_file.h"
#include "hfsplus/file_content.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journaled_object.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint16_t kLockedFlag = 0x0001;

}  // namespace

HFSPlusCatalogFile& ChangeFile(CatalogRecord& record) {
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return *reinterpret_cast<HFSPlusCatalogFile*>(record.bytes);
}

void CheckNotLocked(const CatalogRecord& record) {
    if ((record.file().flags() & kLockedFlag) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_LOCK);
}

CatalogRecord FileContent::TouchRecord() {
    CatalogRecord record = driver->metadata().GetCatalogFile().GetRecordById(file_id);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    CheckNotLocked(record);
    ChangeFile(record).accessDate_.set(MacTimeNow());
    driver->metadata().GetCatalogFile().WriteFileRecord(file_id, record);
    return record;
}

void FileContent::StoreSize(CatalogRecord record, std::uint64_t size) {
    HFSPlusCatalogFile& file = ChangeFile(record);
    const std::uint32_t now = MacTimeNow();
    file.dataFork_.logicalSize_.set(size);
    file.dataFork_.totalBlocks_.set(data_extents.block_count());
    file.attributeModDate_.set(now);
    file.contentModDate_.set(now);
    driver->metadata().GetCatalogFile().WriteFileRecord(file_id, record);
    record_dirty = 1;
}

}  // namespace hfsplus
