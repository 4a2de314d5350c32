#include "ntfs/record_allocator.h"

#include "ntfs/ntfs_records.h"

namespace ntfs {

Mft::FileRecordAllocator::FileRecordAllocator(NTFSDriver* driver, BaseFileRecord* record_zero)
    : Bitmap(driver, record_zero, kBitmap, std::u16string()) {}

void Mft::FileRecordAllocator::freeBits(std::uint64_t first, std::uint64_t count) {
    if (first < kFirstFreeableRecord) {
        const std::uint64_t skipped = kFirstFreeableRecord - first;
        if (count <= skipped) return;
        count -= skipped;
        first = kFirstFreeableRecord;
    }
    Bitmap::freeBits(first, count);
}

void Mft::FileRecordAllocator::setReservedRecord(std::uint64_t number) {
    reserved_record_ = number;
    has_reserved_record_ = true;
}

bool Mft::FileRecordAllocator::isReserved(std::uint64_t bit) {
    return bit < kFirstAllocatableRecord || (has_reserved_record_ && bit == reserved_record_);
}

}  // namespace ntfs
