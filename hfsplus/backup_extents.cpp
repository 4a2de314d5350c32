#include "hfsplus/backup_extents.h"

#include <algorithm>

#include "hfsplus/attributes_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/file_content.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

HFSPlusBackupExtentsArray::HFSPlusBackupExtentsArray(HFSPlusDriver& driver, const ForkData& fork, std::uint32_t type)
    : driver(driver), logical_size(fork.logicalSize()), total_blocks(fork.totalBlocks()) {
    alignment = 1;
    if (logical_size == 0) return;
    const std::uint64_t block = driver.block_size();
    if (block == 0 || block % driver.sector_size != 0 || kMostChunk % block != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
    // A fork larger than its volume is damage; its size bounds every read below.
    CheckedForkSize(driver, fork);
    stream_type = type;
    chunk = std::min<std::uint64_t>(kMostChunk, block * total_blocks);
    alignment = block;
    extents.Append(&fork.extent(0), kExtentsPerRecord);
}

void HFSPlusBackupExtentsArray::CheckComplete() const {
    if (stream_type != 0 && extents.block_count() != total_blocks) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
}

void HFSPlusBackupExtentsArray::Finish() {
    stream_type = 0;
    chunk = 0;
}

std::uint64_t HFSPlusBackupExtentsArray::read(void* area) {
    const std::uint64_t block = driver.block_size();
    if (stream_type == 0 || next_block >= extents.block_count()) {
        Finish();
        return 0;
    }
    const std::uint64_t position = std::uint64_t(next_block) * block;
    const auto most = static_cast<std::uint32_t>(chunk / block);
    const BlockArea run = extents.Locate(next_block).KeepFirst(most);
    if (run.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint32_t per_block = driver.sectors_per_block();
    driver.read_sectors(area, std::uint64_t(run.first) * per_block, std::uint64_t(run.GetCount()) * per_block,
                        per_block, 0);
    next_block += run.GetCount();
    const std::uint64_t end = position + std::uint64_t(run.GetCount()) * block;
    // Blocks that a fork holds beyond its size (a clump taken ahead) give nothing.
    if (next_block >= extents.block_count() || end >= logical_size) Finish();
    return position >= logical_size ? 0 : std::min(end, logical_size) - position;
}

HFSPlusBackupDataForkExtentsArray::HFSPlusBackupDataForkExtentsArray(HFSPlusDriver& driver, std::uint32_t file_id,
                                                                     const ForkData& fork, bool skip)
    : HFSPlusBackupExtentsArray(driver, fork, kStreamData) {
    if (skip) {
        Finish();
        return;
    }
    if (stream_type == 0) return;
    driver.metadata().GetExtentsOverflowFile().LoadExtents(file_id, kDataFork, extents);
    CheckComplete();
}

HFSPlusBackupResourceForkExtentsArray::HFSPlusBackupResourceForkExtentsArray(HFSPlusDriver& driver,
                                                                             std::uint32_t file_id,
                                                                             const ForkData& fork)
    : HFSPlusBackupExtentsArray(driver, fork, kStreamExtendedAttributes) {
    if (stream_type == 0) return;
    driver.metadata().GetExtentsOverflowFile().LoadExtents(file_id, kResourceFork, extents);
    CheckComplete();
}

HFSPlusBackupAttributeForkDataExtentsArray::HFSPlusBackupAttributeForkDataExtentsArray(HFSPlusDriver& driver,
                                                                                       std::uint32_t file_id,
                                                                                       const std::u16string& name,
                                                                                       const ForkData& fork)
    : HFSPlusBackupExtentsArray(driver, fork, kStreamExtendedAttributes) {
    if (stream_type == 0) return;
    driver.metadata().GetAttributesFile().GetForkExtents(file_id, HFSPlusString(name), extents);
    CheckComplete();
}

}  // namespace hfsplus
