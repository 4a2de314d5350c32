#pragma once
// The bytes of a fork as a backup stream: whole runs of allocation blocks
// straight from the device, at most 64 KiB a read, each read's area
// aligned to the block size, the last one cut at the fork's logicalSize.
// The list of extents is complete, and its block count equal to the
// fork's totalBlocks, before the first read.
#include <cstdint>
#include <string>

#include "hfsplus/backup_item.h"
#include "hfsplus/extents_array.h"
#include "hfsplus/hfsplus_records.h"

namespace hfsplus {

class HFSPlusDriver;

class HFSPlusBackupExtentsArray : public HFSPlusBackupedItem {
public:
    static constexpr std::uint64_t kMostChunk = 0x10000;

    std::uint64_t read(void* area) override;

protected:
    // A fork with a logicalSize of 0 has nothing to give. FILE_BACKUP for
    // a block size that doesn't fit the sectors or the largest chunk.
    HFSPlusBackupExtentsArray(HFSPlusDriver& driver, const ForkData& fork, std::uint32_t type);
    // After the subclass has completed the list: FILE_BACKUP when it
    // doesn't hold the fork's totalBlocks.
    void CheckComplete() const;
    // No data from the start, whatever the fork holds.
    void Finish();

    HFSPlusDriver& driver;
    ExtentsDescriptorArray extents;
    std::uint64_t logical_size;
    std::uint32_t total_blocks;
    std::uint32_t next_block = 0;
};

// A file's data fork; with `skip` (option bit 2) at its end from the start.
class HFSPlusBackupDataForkExtentsArray : public HFSPlusBackupExtentsArray {
public:
    HFSPlusBackupDataForkExtentsArray(HFSPlusDriver& driver, std::uint32_t file_id, const ForkData& fork, bool skip);
};

class HFSPlusBackupResourceForkExtentsArray : public HFSPlusBackupExtentsArray {
public:
    HFSPlusBackupResourceForkExtentsArray(HFSPlusDriver& driver, std::uint32_t file_id, const ForkData& fork);
};

// The value of an attribute kept in a fork of the attributes file.
class HFSPlusBackupAttributeForkDataExtentsArray : public HFSPlusBackupExtentsArray {
public:
    HFSPlusBackupAttributeForkDataExtentsArray(HFSPlusDriver& driver, std::uint32_t file_id,
                                               const std::u16string& name, const ForkData& fork);
};

}  // namespace hfsplus
