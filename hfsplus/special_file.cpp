#include "hfsplus/special_file.h"

#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

SpecialFile::SpecialFile(HFSPlusDriver* driver, std::uint32_t fork_id)
    : JournaledFileSystemObject(driver),
      fork_id(fork_id),
      volume_header(&driver->metadata().GetVolumeHeader()) {
    extents.Append(&fork().extent(0), kExtentsPerRecord);
}

const ForkData& SpecialFile::fork() const {
    const ForkData* found = volume_header->header().fork(fork_id);
    if (found == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return *found;
}

std::uint64_t SpecialFile::size() { return fork().logicalSize(); }

SectorArea SpecialFile::Locate(std::uint64_t position) {
    if (position >= size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t block_size = driver->block_size();
    const std::uint64_t block = position / block_size;
    if (block >= extents.block_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const BlockArea blocks = extents.Locate(static_cast<std::uint32_t>(block));
    if (blocks.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t per_block = driver->sectors_per_block();
    const SectorArea sectors = SectorArea::FromCount(blocks.first * per_block, blocks.GetCount() * per_block);
    return sectors.SkipFirst((position % block_size) / driver->sector_size);
}

}  // namespace hfsplus
