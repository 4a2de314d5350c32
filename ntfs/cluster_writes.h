#pragma once
// The two ends of every cached change of the volume: a block made ready
// for new bytes, and the block handed back to the cache as changed. Between
// them lies only the copy; the log's restart point is reset before the
// first changed block can reach the disk, so that no replay of the old log
// runs over what this driver wrote.
#include <cstdint>

#include "fsdriver/block_handle.h"

namespace ntfs {

class NTFSDriver;

// The block of `count` sectors at `first`, let through the volume's write
// gate; without the old contents when `no_read`. FILE_READ_ONLY on a volume
// held read only or a device that refuses writes.
BlockHandle WritableBlock(NTFSDriver* driver, std::uint64_t first, std::uint32_t count, bool no_read);
// The bytes of `block` are changed: the log reset runs, the block is dirty.
void MarkWritten(NTFSDriver* driver, BlockHandle& block);
// The gate of a transfer that goes straight to the device.
void PrepareDirectWrite(NTFSDriver* driver);

}  // namespace ntfs
