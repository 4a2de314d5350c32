// Records of the MFT handed out and given back. One record is kept back
// for the MFT's own next extension record, so that growing the MFT never
// needs a record that only a grown MFT could give.
#include <cstring>

#include "loader/common/raise.h"
#include "ntfs/attribute.h"
#include "ntfs/file_record_impl.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/record_allocator.h"
#include "ntfs/record_layout.h"

namespace ntfs {

Mft::FileRecordAllocator& Mft::recordAllocator() {
    if (!allocator_) allocator_ = std::make_unique<FileRecordAllocator>(driver_, record_zero_.get());
    return *allocator_;
}

std::uint64_t Mft::takeRecordBit(bool commit) {
    std::vector<BitRun> runs;
    std::uint64_t got = 0;
    recordAllocator().allocate(runs, 1, &got, true, commit);
    if (got == 0 || runs.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    return runs.front().first;
}

RecordBuffer* Mft::allocateRecord(bool use_reserved) {
    FileRecordAllocator& bits = recordAllocator();
    if (!has_reserved_record_) {
        reserved_record_ = takeRecordBit(false);
        has_reserved_record_ = true;
        bits.setReservedRecord(reserved_record_);
    }
    for (;;) {
        std::uint64_t number;
        if (use_reserved) {
            number = reserved_record_;
            has_reserved_record_ = false;
            bits.clearReservedRecord();
            bits.setBit(number);
            use_reserved = false;
        } else {
            number = takeRecordBit(true);
        }
        // A record in use whose bit was clear is left alone: it is lost to
        // allocation rather than handed out twice.
        if (RecordBuffer* buffer = initialiseRecord(number)) return buffer;
    }
}

void Mft::reachRecord(std::uint64_t number) {
    const std::uint64_t end = (number + 1) * driver_->record_size;
    Attribute* data = dataStream();
    if (data->size() >= end) return;
    if (data->resize(end, true) < end) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
}

RecordBuffer* Mft::initialiseRecord(std::uint64_t number) {
    const bool beyond = number >= recordCount();
    reachRecord(number);
    if (buffers_.count(number) != 0) return nullptr;
    auto buffer = std::make_unique<RecordBuffer>();
    buffer->number = number;
    buffer->bytes.assign(driver_->record_size, 0);
    if (!beyond) {
        // What lies there decides only whether the record is in use and its
        // sequence number; damage in a free record doesn't matter.
        const std::uint32_t size = driver_->record_size;
        if (dataStream()->read(number * size, size, buffer->data()) != size)
            Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
        const std::uint16_t flags = buffer->header()->flags();
        if (std::memcmp(buffer->data(), "FILE", 4) == 0 && (flags & kRecordInUse) != 0) return nullptr;
    }
    LayOutFreshRecord(*buffer, driver_->record_size);
    buffer->references = 1;
    RecordBuffer* result = buffer.get();
    buffers_.insert_or_assign(number, std::move(buffer));
    writeRecord(*result);
    return result;
}

void Mft::freeRecord(RecordBuffer* buffer) {
    if (buffer != nullptr) buffer->free_on_release = true;
}

void Mft::releaseFreedRecord(RecordBuffer& buffer) {
    if (buffer.number < FileRecordAllocator::kFirstFreeableRecord) return;
    if ((buffer.header()->flags() & kRecordInUse) == 0) return;
    std::uint16_t sequence = static_cast<std::uint16_t>(buffer.header()->sequence_number() + 1);
    if (sequence == 0) sequence = 1;
    SetRecordField16(buffer, record_field::kSequence, sequence);
    SetRecordField16(buffer, record_field::kFlags, static_cast<std::uint16_t>(buffer.header()->flags() & ~kRecordInUse));
    writeRecord(buffer);
    recordAllocator().freeBits(buffer.number, 1);
}

}  // namespace ntfs
