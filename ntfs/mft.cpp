#include "ntfs/mft.h"

#include <algorithm>
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/fixups.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_allocator.h"

namespace ntfs {

Mft::Mft(NTFSDriver* driver) : driver_(driver) {
    record_zero_ = std::make_unique<MftBaseFileRecordImpl>(driver, kMftRecord, this);
}

Mft::~Mft() {
    allocator_.reset();
    if (data_ != nullptr) record_zero_->releaseAttribute(data_);
    record_zero_.reset();
}

void Mft::readRecordZero(RecordBuffer& buffer) {
    // Straight from its place: a cluster at a time through the cache, on
    // the same grid as every other cluster the driver reads.
    const std::uint32_t per_cluster = driver_->sectors_per_cluster;
    const std::uint32_t sectors = std::max(per_cluster, driver_->sectors_per_record);
    const std::uint64_t first = std::uint64_t(driver_->mft_start) * per_cluster;
    const std::uint32_t step_bytes = std::min(driver_->cluster_size, driver_->record_size);
    for (std::uint32_t step = 0; step < sectors; step += per_cluster) {
        BlockHandle block = driver_->get_block(first + step, per_cluster, false);
        const std::uint64_t offset = std::uint64_t(step) * driver_->sector_size;
        if (offset >= buffer.bytes.size()) break;
        std::memcpy(buffer.data() + offset, block.data(),
                    static_cast<std::size_t>(std::min<std::uint64_t>(step_bytes, buffer.bytes.size() - offset)));
    }
}

Attribute* Mft::dataStream() {
    if (data_ != nullptr) return data_;
    // Finding the stream may need an extension record of record 0, which
    // is read through the stream itself: a loop on a damaged volume.
    if (finding_data_ || !record_zero_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    finding_data_ = true;
    try {
        data_ = record_zero_->findAttribute(kData, std::u16string());
    } catch (...) {
        finding_data_ = false;
        throw;
    }
    finding_data_ = false;
    if (data_ == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return data_;
}

std::uint64_t Mft::recordCount() { return dataStream()->size() / driver_->record_size; }

std::uint64_t Mft::listableRecords() { return data_ == nullptr ? ~std::uint64_t(0) : recordCount(); }

RecordBuffer* Mft::getRecord(std::uint64_t number) {
    auto found = buffers_.find(number);
    if (found != buffers_.end()) {
        ++found->second->references;
        return found->second.get();
    }
    if (loading_.count(number) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    loading_.insert(number);
    auto buffer = std::make_unique<RecordBuffer>();
    try {
        const std::uint32_t size = driver_->record_size;
        buffer->number = number;
        buffer->bytes.assign(size, 0);
        if (number == kMftRecord) {
            readRecordZero(*buffer);
        } else {
            Attribute* data = dataStream();
            if (number >= data->size() / size) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
            if (data->read(number * size, size, buffer->data()) != size) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
            }
        }
        ApplyReadFixups(buffer->data(), size, kRecordFixupMinimum);
    } catch (...) {
        loading_.erase(number);
        throw;
    }
    loading_.erase(number);
    buffer->references = 1;
    RecordBuffer* result = buffer.get();
    buffers_.insert_or_assign(number, std::move(buffer));
    return result;
}

void Mft::putRecord(RecordBuffer* buffer) {
    if (buffer == nullptr || --buffer->references != 0) return;
    const std::uint64_t number = buffer->number;
    if (buffer->free_on_release) {
        try {
            releaseFreedRecord(*buffer);
        } catch (...) {
            buffers_.erase(number);
            throw;
        }
    }
    buffers_.erase(number);
}

}  // namespace ntfs
