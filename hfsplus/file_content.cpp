#include "hfsplus/file_content.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "fsdriver/block_handle.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

FileContent::FileContent(HFSPlusDriver* driver, const CatalogRecord& record)
    : driver(driver), block_size(driver->block_size()) {
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const HFSPlusCatalogFile& file = record.file();
    file_id = file.fileID();
    ExtentsOverflowFile& overflow = driver->metadata().GetExtentsOverflowFile();
    data_extents.Append(&file.dataFork().extent(0), kExtentsPerRecord);
    overflow.LoadExtents(file_id, kDataFork, data_extents);
    resource_extents.Append(&file.resourceFork().extent(0), kExtentsPerRecord);
    overflow.LoadExtents(file_id, kResourceFork, resource_extents);
}

// The record isn't kept: the size is the catalog's at each question.
std::uint64_t CheckedForkSize(HFSPlusDriver& driver, const ForkData& fork) {
    const std::uint32_t volume_blocks = driver.metadata().GetVolumeHeader().header().totalBlocks();
    const std::uint64_t volume_bytes = std::uint64_t(volume_blocks) * driver.block_size();
    if (fork.totalBlocks() > volume_blocks || fork.logicalSize() > volume_bytes) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return fork.logicalSize();
}

std::uint64_t FileContent::GetSize() {
    const CatalogRecord record = driver->metadata().GetCatalogFile().GetRecordById(file_id);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return CheckedForkSize(*driver, record.file().dataFork());
}

SectorArea FileContent::LocateRun(std::uint64_t position, const ExtentsDescriptorArray& extents) const {
    if (position / block_size >= extents.block_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const BlockArea blocks = extents.Locate(static_cast<std::uint32_t>(position / block_size));
    if (blocks.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t per_block = driver->sectors_per_block();
    const SectorArea sectors = SectorArea::FromCount(blocks.first * per_block, blocks.GetCount() * per_block);
    if (sectors.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return sectors.SkipFirst((position % block_size) / driver->sector_size);
}

SectorArea FileContent::LocateBlock(std::uint64_t position, const ExtentsDescriptorArray& extents) const {
    if (position / block_size >= extents.block_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const BlockArea blocks = extents.Locate(static_cast<std::uint32_t>(position / block_size)).KeepFirst(1);
    if (blocks.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint64_t per_block = driver->sectors_per_block();
    return SectorArea::FromCount(blocks.first * per_block, per_block);
}

// The blocks that the request covers whole go straight to the caller, one
// transfer per contiguous run of them; only a block that the request
// enters or leaves part way goes through the cache, always as the whole
// allocation block, so that cached blocks of the file never overlap.
void FileContent::Read(void* buffer, std::uint64_t position, std::uint64_t count, std::uint64_t& read_count) {
    if (buffer == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    read_count = 0;
    const std::uint64_t size = GetSize();
    if (count == 0 || position >= size) return;
    const std::uint64_t end = position + std::min(count, size - position);
    auto* out = static_cast<unsigned char*>(buffer);
    const std::uint32_t per_block = driver->sectors_per_block();
    while (position < end) {
        const std::uint64_t inside = position % block_size;
        std::uint64_t bytes;
        if (inside != 0 || end - position < block_size) {
            const SectorArea block = LocateBlock(position, data_extents);
            BlockHandle cached = driver->get_block(block.first, per_block, false);
            bytes = std::min(block_size - inside, end - position);
            std::memcpy(out, cached.data() + inside, static_cast<std::size_t>(bytes));
        } else {
            const SectorArea run = LocateRun(position, data_extents);
            const std::uint64_t blocks = std::min((end - position) / block_size, run.GetCount() / per_block);
            if (blocks == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            driver->read_sectors(out, run.first, blocks * per_block, per_block, 0);
            bytes = blocks * block_size;
        }
        out += bytes;
        position += bytes;
        read_count += bytes;
    }
}

std::uint64_t FileContent::GetAreas(std::uint64_t position, std::uint64_t count) {
    const std::uint64_t size = GetSize();
    if (count == 0 || position >= size) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const std::uint64_t end = position + std::min(count, size - position);
    const std::uint32_t sector = driver->sector_size;
    std::vector<std::uint64_t> pairs;
    while (position < end) {
        const SectorArea run = LocateRun(position, data_extents);
        if (run.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint64_t length = std::min(run.GetCount() * sector - position % sector, end - position);
        pairs.push_back(position);
        pairs.push_back(length);
        position += length;
    }
    auto* block = new std::uint64_t[1 + pairs.size()];
    block[0] = pairs.size() / 2;
    std::copy(pairs.begin(), pairs.end(), block + 1);
    return reinterpret_cast<std::uintptr_t>(block);
}

}  // namespace hfsplus
