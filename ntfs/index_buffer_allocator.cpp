#include "ntfs/index_buffer_allocator.h"

#include "ntfs/ntfs_records.h"

namespace ntfs {

IndexBufferAllocator::IndexBufferAllocator(NTFSDriver* driver, RecordRef record, std::u16string index_name,
                                           std::uint32_t clusters_per_index_buffer)
    : Bitmap(driver, std::move(record), kBitmap, std::move(index_name)),
      clusters_per_index_buffer_(clusters_per_index_buffer) {}

}  // namespace ntfs
