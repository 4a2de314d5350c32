#include "hfsplus/journaled_object.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include "fsdriver/aligned_buffer.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journal.h"
#include "hfsplus/replay_map.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// Sectors that go through the staging buffer in one transfer: the ends of
// a request that don't fill a sector, or a caller's buffer that isn't
// aligned for the device.
constexpr std::uint64_t kStagingBytes = 64 * 1024;  // at least two sectors of any size served

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

void JournaledFileSystemObject::write(const void*, std::uint64_t, std::uint64_t, std::uint64_t& written) {
    written = 0;
    driver->refuse_change(ERROR_TAG);
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

void JournaledFileSystemObject::Flush() {
    // Only the write path adds dirty areas, and it alone can write them.
    if (!dirty_areas.empty()) driver->refuse_change(ERROR_TAG);
    dirty = 0;
}

void JournaledFileSystemObject::AddDirtyArea(const SectorArea& area) {
    if (!area.IsEmpty()) dirty_areas.insert(area);
}

}  // namespace hfsplus
