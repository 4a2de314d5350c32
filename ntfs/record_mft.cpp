// How record 0 makes room: it can't be split, and its extension records
// must be reachable before the MFT has grown, so its first one is record
// 15 and the next ones come from the record kept back by the allocator.
#include <cstring>
#include <vector>

#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/nonres_attribute.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_layout.h"

namespace ntfs {

namespace {

constexpr std::uint64_t kMftFirstExtension = 15;
constexpr std::uint64_t kFirstNumberFreed = 16;
constexpr std::uint64_t kRecordsBeforeExtension = 16;

std::uint32_t ExtentLength(std::uint32_t pairs_offset, std::uint32_t encoded) {
    return (pairs_offset + encoded + 7) & ~7u;
}

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
    // the MFT through itself: it stays, with fewer runs.
    if (header->type() == kData && header->name_length() == 0 && holderOf(header) == recordBuffer()) {
        cutDataRuns(header);
        return;
    }
    BaseFileRecordImpl::moveToExtension(header);
}

void MftBaseFileRecordImpl::cutDataRuns(AttributeRecord* header) {
    const std::uint64_t cluster_size = driver_->cluster_size;
    const std::uint64_t kept = (kRecordsBeforeExtension * driver_->record_size + cluster_size - 1) / cluster_size;
    const std::uint64_t highest = header->highest_vcn();
    if (header->lowest_vcn() != 0 || highest < kept) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    const std::uint32_t pairs = header->mapping_pairs_offset();
    auto* pair_bytes = reinterpret_cast<unsigned char*>(header) + pairs;
    const std::uint64_t clusters = driver_->total_sectors / driver_->sectors_per_cluster;
    RunList head = RunList::Decode(pair_bytes, header->length() - pairs, 0, highest, clusters);
    RunList tail = head.splitAt(kept);
    std::vector<unsigned char> tail_pairs(tail.encodedSize());
    tail.encode(tail_pairs.data());
    auto* data = dynamic_cast<NonresAttribute*>(heldAt(header));
    const auto* bytes = reinterpret_cast<const unsigned char*>(header);
    const std::vector<unsigned char> whole(bytes, bytes + header->length());
    // The head shrinks first, so that the list and the new extent find room
    // in this record; until the object reloads its runs it still reaches
    // every record through the runs it decoded before.
    header->set_highest_vcn(kept - 1);
    head.encode(pair_bytes);
    resizeInRecord(header, ExtentLength(pairs, head.encodedSize()), false);
    mft_->flushRecord(recordBuffer()->number);
    try {
        releaseAttribute(addExtent(kData, std::u16string(), kept, highest, tail_pairs.data(),
                                   static_cast<std::uint32_t>(tail_pairs.size())));
    } catch (...) {
        // Records behind the head would be lost without the tail's runs.
        if (data != nullptr) restoreWhole(data->header(), whole);
        throw;
    }
    if (data != nullptr) data->reloadRuns();
}

void MftBaseFileRecordImpl::restoreWhole(AttributeRecord* header, const std::vector<unsigned char>& whole) {
    try {
        resizeInRecord(header, static_cast<std::uint32_t>(whole.size()), false);
        std::memcpy(header, whole.data(), whole.size());
        mft_->flushRecord(recordBuffer()->number);
    } catch (...) {
    }
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
