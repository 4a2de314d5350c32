#pragma once
// The content of one file or symbolic link: its data fork (eight extents
// from the catalog record, the rest from the extents overflow tree) and its
// resource fork's list. Reads go through the driver's block cache by whole
// allocation blocks at the ends of a request, and straight from the device
// for the blocks between, one transfer per contiguous extent.
#include <cstdint>
#include <set>

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

    // --- changes of the data fork; the resource fork is never changed ---
    // FILE_READ_ONLY on a read-only driver, FILE_OPEN when the record
    // isn't a file's, FILE_LOCK for a locked file, all before any change.
    // Writes `count` bytes at `position`, the file growing first to cover
    // them; FILE_WRITE for a null buffer.
    void Write(const void* buffer, std::uint64_t position, std::uint64_t count, std::uint64_t& written);
    // Grows (the new bytes zero) or shrinks the data fork. Growth takes
    // blocks behind the last extent where it can, else the whole file
    // moves to a new list; FILE_WRITE when the volume hasn't the room.
    void SetSize(std::uint64_t size);
    // Gives each block of `old_list` the place of the same block of
    // `new_list` in the cache, to be written there at the flush.
    void RelocateContents(const ExtentsDescriptorArray& old_list, const ExtentsDescriptorArray& new_list);
    // FILE_LOCK for a locked file; an empty area is ignored.
    void AddDirtyArea(const SectorArea& area);
    // Writes the data blocks, then the fork's extents to the catalog
    // record and the extents overflow tree.
    void Flush();

    std::uint32_t file_id;
    ExtentsDescriptorArray data_extents;
    ExtentsDescriptorArray resource_extents;
    HFSPlusDriver* driver;  // not owned
    std::uint64_t block_size;
    std::uint8_t record_dirty = 0;
    std::uint8_t data_extents_dirty = 0;  // the list differs from what the catalog and the tree hold
    std::set<SectorArea> dirty_areas;

private:
    // The record with its accessDate now, stored. The lock is looked at
    // before the store, so a locked file is left as it was.
    CatalogRecord TouchRecord();
    void CheckChange() const;
    void MarkArea(const SectorArea& area);
    void Grow(std::uint64_t old_size, std::uint64_t new_size);
    // The blocks that a size of `new_size` needs beyond the list, in place
    // or with the whole file moved.
    void TakeBlocks(std::uint64_t old_size, std::uint64_t new_size);
    // A write that ends past the end: the blocks taken, and zero only where
    // the write leaves them (the gap in front of it, the rest of its last
    // block), so that its whole blocks go to the device once.
    void GrowForWrite(std::uint64_t old_size, std::uint64_t position, std::uint64_t end);
    void Shrink(std::uint64_t old_size, std::uint64_t new_size);
    // Zeroes the bytes from `from` to `to`, block by block through the cache.
    void ZeroRange(std::uint64_t from, std::uint64_t to);
    // The new size and the list's block count into the record, with the dates.
    void StoreSize(CatalogRecord record, std::uint64_t size);
    // One piece of a write inside one allocation block or one run.
    std::uint64_t WritePiece(const unsigned char* in, std::uint64_t position, std::uint64_t end);
};

// FILE_LOCK when the record's flags have the locked bit.
void CheckNotLocked(const CatalogRecord& record);
// The file record inside a copy, for a change.
HFSPlusCatalogFile& ChangeFile(CatalogRecord& record);

}  // namespace hfsplus
