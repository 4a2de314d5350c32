#pragma once
// The volume's cluster bitmap ($Bitmap, the unnamed data of record 6): one
// bit per cluster, set for a cluster in use. It lives as long as the
// driver, so its cursor keeps its place over many allocations.
#include <cstdint>

#include "ntfs/bitmap.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

class NTFSDriver::ClusterAllocator : public Bitmap {
public:
    // Holds record 6: FILE_CORRUPT without the bitmap or with one too
    // short for the volume's clusters.
    explicit ClusterAllocator(NTFSDriver* driver);
};

}  // namespace ntfs
