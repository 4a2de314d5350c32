#pragma once
// The allocator of file records: record 0's bitmap attribute, one bit per
// record of the MFT. Records 0 to 15 are the volume's own files and never
// come free; records 16 to 23 are kept back for them and never handed out,
// nor is a record that the record layer has picked and not yet used.
#include <cstdint>

#include "ntfs/bitmap.h"
#include "ntfs/mft.h"

namespace ntfs {

class Mft::FileRecordAllocator : public Bitmap {
public:
    // Works through `record_zero`, which the MFT keeps as long as this object.
    FileRecordAllocator(NTFSDriver* driver, BaseFileRecord* record_zero);

    // Records below 16 stay set; the rest are freed.
    void freeBits(std::uint64_t first, std::uint64_t count) override;
    // The record picked ahead of its use: its bit stays clear on disk until
    // setBit stores it, and no allocation hands it out meanwhile.
    void setReservedRecord(std::uint64_t number);
    void clearReservedRecord() { has_reserved_record_ = false; }

    static constexpr std::uint64_t kFirstFreeableRecord = 16;
    static constexpr std::uint64_t kFirstAllocatableRecord = 24;

protected:
    bool isReserved(std::uint64_t bit) override;

private:
    std::uint64_t reserved_record_ = 0;
    bool has_reserved_record_ = false;
};

}  // namespace ntfs
