#include "ntfs/cluster_allocator.h"

#include <algorithm>
#include <vector>

#include "loader/common/raise.h"

namespace ntfs {

namespace {

constexpr std::uint64_t kPiece = 65536;

std::uint32_t SetBits(unsigned char byte) {
    std::uint32_t bits = 0;
    for (; byte != 0; byte &= static_cast<unsigned char>(byte - 1)) ++bits;
    return bits;
}

}  // namespace

NTFSDriver::ClusterAllocator::ClusterAllocator(NTFSDriver* driver)
    : Bitmap(driver, driver->record_cache->get(kBitmapRecord), kData, std::u16string()),
      driver_(driver),
      record_(driver->record_cache->get(kBitmapRecord)) {
    countFree();
}

void NTFSDriver::ClusterAllocator::countFree() {
    AttributeRef bitmap = record_.find(kData);
    if (!bitmap) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t clusters = driver_->total_sectors / driver_->sectors_per_cluster;
    const std::uint64_t bytes = (clusters + 7) / 8;
    if (bitmap->size() < bytes) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<unsigned char> piece(kPiece);
    std::uint64_t used = 0;
    for (std::uint64_t at = 0; at < bytes; at += kPiece) {
        const std::uint64_t length = std::min(kPiece, bytes - at);
        if (bitmap->read(at, length, piece.data()) != length) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
        // Bits past the last cluster in the last byte don't count.
        if (at + length == bytes && clusters % 8 != 0) {
            piece[length - 1] &= static_cast<unsigned char>((1u << (clusters % 8)) - 1);
        }
        for (std::uint64_t i = 0; i < length; ++i) used += SetBits(piece[i]);
    }
    free_clusters_ = clusters - used;
}

}  // namespace ntfs
