#pragma once
// The content of one file or symbolic link: its data fork (eight extents
// from the catalog record, the rest from the extents overflow tree) and its
// resource fork's list. Reads go through the driver's block cache by whole
// allocation blocks at the ends of a request, and straight from the device
// for the blocks between, one transfer per contiguous extent.
#include <cstdint>

#include "hfsplus/area_limits.h"
#include "hfsplus/catalog_record.h"
#include "hfsplus/extents_array.h"

namespace hfsplus {

class HFSPlusDriver;

// The logicalSize of a file's fork, checked against the volume: HFS+ has
// no sparse files, so no fork can be larger than the volume that holds its
// blocks (FILE_CORRUPT). A size that only passes the fork's own extents is
// found by the read that needs the missing blocks.
std::uint64_t CheckedForkSize(HFSPlusDriver& driver, const ForkData& fork);

class FileContent {
public:
    // `record` is the file's catalog record (type 2).
    FileContent(HFSPlusDriver* driver, const CatalogRecord& record);

    // The data fork's logicalSize in the present catalog record.
    std::uint64_t GetSize();
    // Reads up to `count` bytes at `position`; a short count at the end of
    // the file. FILE_READ for a null buffer; FILE_CORRUPT when the extents
    // don't cover the size.
    void Read(void* buffer, std::uint64_t position, std::uint64_t count, std::uint64_t& read_count);
    // The sectors from byte `position` to the end of its extent.
    SectorArea LocateRun(std::uint64_t position, const ExtentsDescriptorArray& extents) const;
    // The sectors of the allocation block that holds byte `position`.
    SectorArea LocateBlock(std::uint64_t position, const ExtentsDescriptorArray& extents) const;
    // The runs of a range as (file byte, length) pairs: a heap block of a
    // u64 count and the pairs, for the framework's allocated ranges.
    std::uint64_t GetAreas(std::uint64_t position, std::uint64_t count);
    void Flush() {}

    std::uint32_t file_id;
    ExtentsDescriptorArray data_extents;
    ExtentsDescriptorArray resource_extents;
    HFSPlusDriver* driver;  // not owned
    std::uint64_t block_size;
};

}  // namespace hfsplus
