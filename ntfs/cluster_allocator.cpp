#include "ntfs/cluster_allocator.h"

#include "loader/common/raise.h"
#include "ntfs/file_record.h"

namespace ntfs {

NTFSDriver::ClusterAllocator::ClusterAllocator(NTFSDriver* driver)
    : Bitmap(driver, driver->record_cache->get(kBitmapRecord), kData, std::u16string()) {
    const std::uint64_t clusters = driver->total_sectors / driver->sectors_per_cluster;
    if (streamSize() < (clusters + 7) / 8) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // The last byte's bits past the last cluster name no cluster: they
    // are neither counted nor handed out, whatever they hold.
    limitBits(clusters);
}

}  // namespace ntfs
