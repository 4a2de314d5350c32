#include "hfsplus/journaled_object.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "fsdriver/aligned_buffer.h"
#include "fsdriver/block_handle.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journal.h"
#include "hfsplus/replay_map.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// Sectors that go through the staging buffer in one transfer: the ends of
// a request that don't fill a sector, or a caller's buffer that isn't
// aligned for the device.
constexpr std::uint64_t kStagingBytes = 64 * 1024;  // at least two sectors of any size served

// Counts a metadata write for as long as it runs, however it ends.
class WriteUnderWay {
public:
    explicit WriteUnderWay(HFSPlusDriver* driver) : count(driver->metadata_writes) { ++count; }
    ~WriteUnderWay() { --count; }
    WriteUnderWay(const WriteUnderWay&) = delete;
    WriteUnderWay& operator=(const WriteUnderWay&) = delete;

private:
    std::uint32_t& count;
};

bool Aligned(const void* address, std::uint32_t alignment) {
    return reinterpret_cast<std::uintptr_t>(address) % alignment == 0;
}

}  // namespace

JournaledFileSystemObject::JournaledFileSystemObject(HFSPlusDriver* driver)
    : driver(driver), replay_items(&driver->metadata().GetReplayItems()) {
    // The journal comes before every metadata object in the mount; a volume
    // without one leaves the pointer null.
    if (driver->metadata().HasComponent(1)) journal = &driver->metadata().GetJournal();
}

std::uint64_t JournaledFileSystemObject::sector_at(std::uint64_t position) {
    SectorArea area = Locate(position);
    if (area.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return area.first;
}

void JournaledFileSystemObject::read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) {
    Read(buffer, position, size, got);
}

void JournaledFileSystemObject::write(const void* buffer, std::uint64_t position, std::uint64_t size,
                                      std::uint64_t& written) {
    Write(buffer, position, size, written);
}

void JournaledFileSystemObject::set_size(std::uint64_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void JournaledFileSystemObject::set_times(std::uint64_t, std::uint64_t, std::uint64_t) {
    Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

std::uint64_t JournaledFileSystemObject::OffsetInSector(std::uint64_t position) {
    return position % driver->sector_size;
}

void JournaledFileSystemObject::Read(void* buffer, std::uint64_t position, std::uint64_t count,
                                     std::uint64_t& read_count) {
    const std::uint64_t total = size();
    if (buffer == nullptr || position >= total || count > total - position) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    read_count = 0;
    auto* out = static_cast<unsigned char*>(buffer);
    const std::uint32_t sector = driver->sector_size;
    const std::uint64_t staging_sectors = std::max<std::uint64_t>(1, kStagingBytes / sector);
    std::unique_ptr<AlignedBuffer> staging;
    while (read_count < count) {
        SectorArea area = Locate(position);
        if (area.IsEmpty()) break;
        const std::uint64_t skip = OffsetInSector(position);
        const std::uint64_t rest = count - read_count;
        if (skip >= sector) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        // Whole sectors land straight in an aligned buffer; a partial sector
        // and an unaligned buffer go through the staging bytes. Sector 0
        // alone is no area, so a run from it stays two sectors long, which
        // only the staging bytes have room for.
        const bool direct = skip == 0 && rest >= sector && Aligned(out, sector) && area.first != 0;
        std::uint64_t keep = direct ? rest / sector : std::min((skip + rest + sector - 1) / sector, staging_sectors);
        if (area.first == 0) keep = std::max<std::uint64_t>(keep, 2);
        area = area.KeepFirst(keep);
        HFSPlusReplayItem item = replay_items->Translate(area);
        if (area.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint64_t bytes = std::min(area.GetCount() * sector - skip, rest);
        if (direct) {
            read_run(out, area, item);
        } else {
            if (!staging) staging = std::make_unique<AlignedBuffer>(staging_sectors * sector, sector);
            read_run(staging->data(), area, item);
            std::memcpy(out, staging->data() + skip, bytes);
        }
        out += bytes;
        position += bytes;
        read_count += bytes;
    }
}

// Where the journal holds a newer copy of the run, that copy is read in
// its place: the run then reads as it will once the journal is replayed.
void JournaledFileSystemObject::read_run(unsigned char* out, const SectorArea& area, const HFSPlusReplayItem& item) {
    SectorArea from = area;
    if (journal != nullptr && !journal->IsClean() && !item.IsEmpty()) {
        const SectorArea overlap = SectorArea::Intersect(item.target, area);
        if (!overlap.IsEmpty()) {
            if (overlap != area) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
            if (item.source != item.target) {
                const std::uint64_t offset = area.first - item.target.first;
                if (item.source.GetCount() < offset + area.GetCount()) {
                    Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
                }
                from = SectorArea::FromCount(item.source.first + offset, area.GetCount());
            }
        }
    }
    driver->read_sectors(out, from.first, from.GetCount(), 1, from.first);
}

void JournaledFileSystemObject::check_change(const void* buffer, std::uint64_t position, std::uint64_t count) {
    const std::uint64_t total = size();
    if (driver->read_only != 0 || buffer == nullptr || position >= total || count > total - position) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
}

void JournaledFileSystemObject::CommitJournal() {
    if (journal == nullptr) return;
    if (journal->NeedsInitialisation()) {
        journal->Initialise();
    } else if (!journal->IsClean()) {
        journal->Replay(true);
    } else {
        return;
    }
    journal->FlushDirtyAreas();
}

void JournaledFileSystemObject::Write(const void* buffer, std::uint64_t position, std::uint64_t count,
                                      std::uint64_t& written) {
    written = 0;
    check_change(buffer, position, count);
    WriteUnderWay under_way(driver);
    CommitJournal();
    const auto* in = static_cast<const unsigned char*>(buffer);
    const std::uint32_t sector = driver->sector_size;
    while (written < count) {
        SectorArea area = Locate(position);
        if (area.IsEmpty()) break;
        const std::uint64_t skip = OffsetInSector(position);
        const std::uint64_t rest = count - written;
        if (skip >= sector) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        // Sector 0 alone is no area: a header there keeps both sectors.
        area = area.KeepFirst(std::max<std::uint64_t>((skip + rest + sector - 1) / sector, area.first == 0 ? 2 : 1));
        replay_items->Translate(area);
        if (area.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::uint64_t bytes = std::min(area.GetCount() * sector - skip, rest);
        GetBuffer cached(driver);
        cached.SetArea(area);
        cached.Write(in, bytes, skip);
        AddDirtyArea(area);
        MarkDirty();
        note_change();
        in += bytes;
        position += bytes;
        written += bytes;
    }
}

// The areas may not overlap: a block moved into a place that the rest of
// the source still holds would push it out of the cache.
void JournaledFileSystemObject::MoveSectors(const SectorArea& source, const SectorArea& target) {
    if (driver->read_only != 0 || source.IsEmpty() || target.IsEmpty() || source == target ||
        source.GetCount() != target.GetCount() || !SectorArea::Intersect(source, target).IsEmpty()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    WriteUnderWay under_way(driver);
    CommitJournal();
    const std::uint64_t length = source.GetCount();
    std::uint64_t done = 0;
    while (done < length) {
        SectorArea piece = source.SkipFirst(done);
        replay_items->Translate(piece);
        if (piece.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        move_piece(piece.first, target.first + done, piece.GetCount());
        done += piece.GetCount();
    }
    // The moved sectors belong to this object now: its flush writes them.
    AddDirtyArea(target);
    MarkDirty();
    note_change();
}

// The primary header's stamp (in use, inconsistent) goes to the disk with
// the first change.
void JournaledFileSystemObject::note_change() {
    HFSPlusMetadata& held = driver->metadata();
    if (held.volume_header && held.volume_header.get() != this) held.volume_header->MarkDirty();
}

// Whole cached blocks change their place; a piece that doesn't fill blocks
// on both sides is copied block by block through the cache instead.
void JournaledFileSystemObject::move_piece(std::uint64_t source, std::uint64_t target, std::uint64_t length) {
    const std::uint32_t sector = driver->sector_size;
    std::uint64_t done = 0;
    while (done < length) {
        const CacheUnit from = CacheUnitOf(*driver, source + done);
        const CacheUnit to = CacheUnitOf(*driver, target + done);
        const std::uint64_t rest = length - done;
        if (from.first == source + done && to.first == target + done && from.count == to.count && from.count <= rest) {
            BlockHandle block = driver->get_block(from.first, static_cast<std::uint32_t>(from.count), false);
            driver->prepare_block_write(block);
            driver->move_block(block, to.first);
            done += from.count;
            continue;
        }
        const std::uint64_t count = std::min({rest, from.end() - (source + done), to.end() - (target + done)});
        AlignedBuffer bytes(count * sector, sector);
        driver->read_sectors(bytes.data(), source + done, count, 1, source + done);
        GetBuffer cached(driver);
        cached.SetArea(SectorArea::FromCount(target + done, count));
        cached.Write(bytes.data(), count * sector);
        done += count;
    }
}

void JournaledFileSystemObject::Flush() {
    driver->FlushAreas(dirty_areas);
    dirty = 0;
}

void JournaledFileSystemObject::AddDirtyArea(const SectorArea& area) {
    if (!area.IsEmpty()) dirty_areas.insert(area);
}

CacheUnit CacheUnitOf(const HFSPlusDriver& driver, std::uint64_t sector) {
    const std::uint64_t per_block = driver.sectors_per_block();
    const std::uint64_t first = sector - sector % per_block;
    if (per_block == 0 || first >= driver.volume_sectors) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return CacheUnit{first, std::min(per_block, driver.volume_sectors - first)};
}

void GetBuffer::SetArea(const SectorArea& where) {
    if (where.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    area = where;
    zero = false;
}

void GetBuffer::SetSize(std::uint64_t bytes) {
    if (area.IsEmpty() || bytes > area.GetCount() * driver->sector_size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    zero = true;
}

void GetBuffer::Write(const void* data, std::uint64_t bytes, std::uint64_t offset) {
    const std::uint64_t sector = driver->sector_size;
    const std::uint64_t area_bytes = area.GetCount() * sector;
    if (data == nullptr || bytes == 0 || area.IsEmpty() || offset > area_bytes || bytes > area_bytes - offset) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    const auto* in = static_cast<const unsigned char*>(data);
    const std::uint64_t start = area.first * sector;   // the area's first byte on the volume
    std::uint64_t at = area.first;
    while (at <= area.last) {
        const CacheUnit unit = CacheUnitOf(*driver, at);
        const std::uint64_t part_last = std::min(unit.end() - 1, area.last);
        // Byte positions on the volume, and the unit's first byte.
        const std::uint64_t unit_begin = unit.first * sector;
        const std::uint64_t part_begin = at * sector;
        const std::uint64_t part_end = (part_last + 1) * sector;
        const std::uint64_t copy_begin = std::max(part_begin, start + offset);
        const std::uint64_t copy_end = std::min(part_end, start + offset + bytes);
        if (zero || copy_begin < copy_end) {
            BlockHandle block = driver->get_block(unit.first, static_cast<std::uint32_t>(unit.count), false);
            driver->prepare_block_write(block);
            if (zero) std::memset(block.data() + (part_begin - unit_begin), 0, part_end - part_begin);
            if (copy_begin < copy_end) {
                std::memcpy(block.data() + (copy_begin - unit_begin), in + (copy_begin - start - offset),
                            copy_end - copy_begin);
            }
            block.set_dirty();
        }
        at = part_last + 1;
    }
}

}  // namespace hfsplus
