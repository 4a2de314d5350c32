// How record 0 makes room: it can't be split, and its extension records
// must be reachable before the MFT has grown, so its first one is record
// 15 and the next ones come from the record kept back by the allocator.
#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_layout.h"

namespace ntfs {

namespace {

constexpr std::uint64_t kMftFirstExtension = 15;
constexpr std::uint64_t kFirstNumberFreed = 16;

}  // namespace

bool BaseFileRecordImpl::listNamesOneRecord() {
    loadList();
    if (!has_list_) return true;
    for (const ListEntry& entry : list_) {
        if (entry.record != list_.front().record) return false;
    }
    return true;
}

void MftBaseFileRecordImpl::splitRecord(RecordBuffer*, const AttributeRecord*, std::uint32_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

bool MftBaseFileRecordImpl::qualifies(RecordBuffer* buffer, const AttributeRecord* header) {
    // The MFT's data extents outside record 0 are what reaches the records.
    if (buffer != recordBuffer() && header->type() == kData && header->name_length() == 0) return false;
    return BaseFileRecordImpl::qualifies(buffer, header);
}

void MftBaseFileRecordImpl::moveToExtension(AttributeRecord* header) {
    // Moved out, the MFT's own data stream could only be found by reading
    // the MFT through itself.
    if (header->type() == kData && header->name_length() == 0 && holderOf(header) == recordBuffer())
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    BaseFileRecordImpl::moveToExtension(header);
}

RecordBuffer* MftBaseFileRecordImpl::allocateExtension() {
    if (!listNamesOneRecord()) {
        RecordBuffer* buffer = mft_->allocateRecord(true);
        adoptExtension(buffer);
        return buffer;
    }
    RecordBuffer* buffer = mft_->getRecord(kMftFirstExtension);
    LayOutFreshRecord(*buffer, driver_->record_size);
    adoptExtension(buffer);
    return buffer;
}

void MftBaseFileRecordImpl::freeExtension(RecordBuffer* buffer) {
    if (buffer->number > kFirstNumberFreed) mft_->freeRecord(buffer);
    mft_->putRecord(buffer);
}

}  // namespace ntfs
