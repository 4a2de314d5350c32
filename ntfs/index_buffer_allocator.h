#pragma once
// The allocator of an index's buffers: its bitmap attribute, named like the
// index ("$I30", "$SDH", ...), one bit per buffer of the index allocation.
// Built for one operation, so each begins its search at bit 0.
#include <cstdint>
#include <string>

#include "ntfs/bitmap.h"

namespace ntfs {

class IndexBufferAllocator : public Bitmap {
public:
    IndexBufferAllocator(NTFSDriver* driver, RecordRef record, std::u16string index_name,
                         std::uint32_t clusters_per_index_buffer);

    std::uint32_t clustersPerIndexBuffer() const { return clusters_per_index_buffer_; }

private:
    std::uint32_t clusters_per_index_buffer_;
};

}  // namespace ntfs
