// Changes of a file's data fork: its size moved (blocks taken behind the
// last extent, or the whole file moved; blocks given back), its bytes
// written, and the list of extents stored at the flush. Whole blocks of a
// write go straight to the device, one transfer per contiguous run; a
// block that the write enters or leaves part way goes through the cache,
// as the reading side does it.
#include <algorithm>
#include <cstring>

#include "fsdriver/block_handle.h"
#include "hfsplus/allocation_file.h"
#include "hfsplus/catalog_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/file_content.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

std::uint64_t BlocksFor(std::uint64_t size, std::uint64_t block_size) { return (size + block_size - 1) / block_size; }

}  // namespace

// A pending journal is replayed before the first byte of data moves, so
// that its replay can't come after our blocks and over them.
void FileContent::CheckChange() const {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    driver->metadata().GetCatalogFile().CommitJournal();
}

void FileContent::AddDirtyArea(const SectorArea& area) {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    const CatalogRecord record = driver->metadata().GetCatalogFile().GetRecordById(file_id);
    if (!record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_OPEN);
    CheckNotLocked(record);
    if (!area.IsEmpty()) dirty_areas.insert(area);
}

// Inside a change whose entry has checked the driver and the lock already.
void FileContent::MarkArea(const SectorArea& area) {
    if (!area.IsEmpty()) dirty_areas.insert(area);
}

void FileContent::Write(const void* buffer, std::uint64_t position, std::uint64_t count, std::uint64_t& written) {
    written = 0;
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    CatalogRecord record = TouchRecord();
    if (count == 0) return;
    if (buffer == nullptr || position > UINT64_MAX - count) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    CheckChange();
    // The file covers what is written, wherever the write starts.
    const std::uint64_t end = position + count;
    const std::uint64_t old_size = record.file().dataFork().logicalSize();
    if (old_size < end) GrowForWrite(old_size, position, end);
    const auto* in = static_cast<const unsigned char*>(buffer);
    try {
        while (position < end) {
            const std::uint64_t bytes = WritePiece(in, position, end);
            in += bytes;
            position += bytes;
            written += bytes;
        }
    } catch (const Common::Error&) {
        // Blocks taken for the write and not reached by it would show
        // whatever they held before: they read as zero instead.
        if (old_size < end) ZeroRange(std::max(position, old_size), end);
        throw;
    }
    record = driver->metadata().GetCatalogFile().GetRecordById(file_id);
    ChangeFile(record).contentModDate_.set(MacTimeNow());
    driver->metadata().GetCatalogFile().WriteFileRecord(file_id, record);
    record_dirty = 1;
}

std::uint64_t FileContent::WritePiece(const unsigned char* in, std::uint64_t position, std::uint64_t end) {
    const std::uint64_t inside = position % block_size;
    const std::uint32_t per_block = driver->sectors_per_block();
    const bool whole = inside == 0 && end - position >= block_size;
    // The device takes only buffers aligned on the sector; from any other
    // the bytes go block by block through the cache.
    if (whole && reinterpret_cast<std::uintptr_t>(in) % driver->sector_size == 0) {
        const SectorArea run = LocateRun(position, data_extents);
        const std::uint64_t blocks = std::min((end - position) / block_size, run.GetCount() / per_block);
        if (blocks == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        // Cached copies of these sectors take the bytes too.
        driver->write_sectors(in, run.first, blocks * per_block);
        return blocks * block_size;
    }
    const SectorArea block = LocateBlock(position, data_extents);
    if (block.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    BlockHandle cached = driver->get_block(block.first, per_block, whole);
    driver->prepare_block_write(cached);
    const std::uint64_t bytes = std::min(block_size - inside, end - position);
    std::memcpy(cached.data() + inside, in, static_cast<std::size_t>(bytes));
    cached.set_dirty();
    MarkArea(block);
    return bytes;
}

void FileContent::SetSize(std::uint64_t size) {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    const CatalogRecord record = TouchRecord();
    const std::uint64_t old_size = record.file().dataFork().logicalSize();
    if (size == old_size) return;
    CheckChange();
    if (size < old_size) {
        Shrink(old_size, size);
    } else {
        Grow(old_size, size);
    }
    StoreSize(driver->metadata().GetCatalogFile().GetRecordById(file_id), size);
}

void FileContent::Shrink(std::uint64_t old_size, std::uint64_t new_size) {
    const std::uint64_t difference = BlocksFor(old_size, block_size) - BlocksFor(new_size, block_size);
    if (difference == 0) return;
    if (difference > data_extents.block_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    ExtentsDescriptorArray freed;
    data_extents.TruncateTo(data_extents.block_count() - static_cast<std::uint32_t>(difference), freed);
    if (freed.extent_count() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    // What the cache holds of the freed blocks must never reach their next owner.
    const std::uint32_t per_block = driver->sectors_per_block();
    for (std::uint32_t i = 0; i < freed.extent_count(); ++i) {
        const ExtentDescriptor& extent = freed.GetExtent(i);
        for (std::uint32_t b = 0; b < extent.blockCount(); ++b) {
            driver->discard_block((std::uint64_t(extent.startBlock()) + b) * per_block);
        }
    }
    driver->metadata().GetAllocationFile().FreeExtents(freed);
    data_extents_dirty = 1;
}

void FileContent::Grow(std::uint64_t old_size, std::uint64_t new_size) {
    TakeBlocks(old_size, new_size);
    ZeroRange(old_size, new_size);
}

void FileContent::GrowForWrite(std::uint64_t old_size, std::uint64_t position, std::uint64_t end) {
    TakeBlocks(old_size, end);
    if (position > old_size) ZeroRange(old_size, position);
    if (end % block_size != 0) ZeroRange(end, end + 1);
    StoreSize(driver->metadata().GetCatalogFile().GetRecordById(file_id), end);
}

// The list may hold more blocks than the old size needs (a maker's
// preallocation); only the blocks still missing are asked for.
void FileContent::TakeBlocks(std::uint64_t old_size, std::uint64_t new_size) {
    const std::uint64_t needed = BlocksFor(new_size, block_size);
    if (needed <= data_extents.block_count()) return;
    const std::uint64_t difference = needed - data_extents.block_count();
    if (difference > UINT32_MAX) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    const auto blocks = static_cast<std::uint32_t>(difference);
    AllocationFile& allocation = driver->metadata().GetAllocationFile();
    if (!allocation.ExtendFile(file_id, blocks, data_extents)) {
        if (old_size == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        const ExtentsDescriptorArray moved(allocation.AllocateWholeFile(file_id, blocks, data_extents));
        if (moved.extent_count() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        RelocateContents(data_extents, moved);
        data_extents = moved;
    }
    data_extents_dirty = 1;
}

void FileContent::ZeroRange(std::uint64_t from, std::uint64_t to) {
    const std::uint32_t per_block = driver->sectors_per_block();
    while (from < to) {
        const std::uint64_t inside = from % block_size;
        const SectorArea block = LocateBlock(from, data_extents);
        if (block.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        // A block that starts at the old end holds nothing worth reading.
        BlockHandle cached = driver->get_block(block.first, per_block, inside == 0);
        driver->prepare_block_write(cached);
        std::memset(cached.data() + inside, 0, static_cast<std::size_t>(block_size - inside));
        cached.set_dirty();
        MarkArea(block);
        from += block_size - inside;
    }
}

void FileContent::RelocateContents(const ExtentsDescriptorArray& old_list, const ExtentsDescriptorArray& new_list) {
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
    if (old_list.extent_count() == 0 || new_list.extent_count() == 0 ||
        new_list.block_count() < old_list.block_count()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    const std::uint32_t per_block = driver->sectors_per_block();
    for (std::uint32_t block = 0; block < old_list.block_count(); ++block) {
        const std::uint64_t position = std::uint64_t(block) * block_size;
        const SectorArea from = LocateBlock(position, old_list);
        const SectorArea to = LocateBlock(position, new_list);
        if (from.IsEmpty() || to.IsEmpty() || from == to || from.GetCount() != per_block ||
            to.GetCount() != per_block) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
        }
        BlockHandle cached = driver->get_block(from.first, per_block, false);
        driver->prepare_block_write(cached);
        driver->move_block(cached, to.first);
        MarkArea(to);
    }
    record_dirty = 1;
}

void FileContent::Flush() {
    if (record_dirty == 0) return;
    if (driver->read_only == 0) driver->FlushAreas(dirty_areas);
    dirty_areas.clear();
    if (driver->read_only == 0) {
        CatalogRecord record = driver->metadata().GetCatalogFile().GetRecordById(file_id);
        HFSPlusCatalogFile& file = ChangeFile(record);
        if (data_extents_dirty != 0) {
            ExtentsOverflowFile& overflow = driver->metadata().GetExtentsOverflowFile();
            overflow.DeleteRecords(file_id, kDataFork);
            std::memset(file.dataFork_.extents_, 0, sizeof(file.dataFork_.extents_));
            if (data_extents.extent_count() != 0) {
                data_extents.GetGroup(0, file.dataFork_.extents_);
                overflow.WriteRecords(file_id, data_extents);
            }
            data_extents_dirty = 0;
        }
        driver->metadata().GetCatalogFile().WriteFileRecord(file_id, record);
    }
    record_dirty = 0;
}

}  // namespace hfsplus
