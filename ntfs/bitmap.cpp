#include "ntfs/bitmap.h"

#include "loader/common/raise.h"

namespace ntfs {

// Not built yet: nothing allocates so far.
Bitmap::Bitmap(NTFSDriver* driver, RecordRef, std::uint32_t, std::u16string) : driver_(driver) {}

void Bitmap::allocate(std::vector<BitRun>&, std::uint64_t, std::uint64_t* got, bool, bool) {
    if (got != nullptr) *got = 0;
}

void Bitmap::freeList(const std::vector<BitRun>& runs) {
    for (const BitRun& run : runs) freeBits(run.first, run.count);
}

void Bitmap::freeBits(std::uint64_t, std::uint64_t) { Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED); }

std::uint64_t Bitmap::freeCount() { return 0; }

void Bitmap::setBit(std::uint64_t) { Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED); }

}  // namespace ntfs
