#pragma once
// The volume's cluster bitmap ($Bitmap, the unnamed data of record 6).
#include <cstdint>

#include "ntfs/bitmap.h"
#include "ntfs/file_record.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

class NTFSDriver::ClusterAllocator : public Bitmap {
public:
    // Holds record 6 and counts its clear bits below the volume's cluster
    // count; FILE_CORRUPT without the bitmap, FILE_READ for a short one.
    explicit ClusterAllocator(NTFSDriver* driver);

    std::uint64_t freeClusters() const { return free_clusters_; }

private:
    void countFree();

    NTFSDriver* driver_;
    RecordRef record_;
    std::uint64_t free_clusters_ = 0;
};

}  // namespace ntfs
