#pragma once
// Everything that holds volume metadata (the two volume headers and the
// special files) is a file object whose bytes live in sectors of the
// volume. This is the one place where metadata reads meet the journal: a
// read asks the replay map for each run of sectors, and where the journal
// holds a newer copy of them, that copy is read instead. So a volume with a
// journal full of transactions reads as it will after replay, while nothing
// is written.
//
// Reads go through the driver's bulk transfer, which sees what the block
// cache holds; metadata objects keep their own buffers (B-tree nodes) and
// never take cached blocks of their own, so they can't collide with the
// file data blocks on the cache's grid.
#include <cstdint>
#include <set>

#include "fsdriver/file_object.h"
#include "hfsplus/area_limits.h"

namespace hfsplus {

class HFSPlusDriver;
class HFSPlusJournal;
class HFSPlusReplayItemsMap;
struct HFSPlusReplayItem;

// Seconds since 1904-01-01 from the clock, for catalog and fork dates.
std::uint32_t MacTimeNow();
// The same for the volume header's dates, local time (the bias is 0 here).
std::uint32_t MacLocalTimeNow();
// A caller's time in milliseconds since 1970, as an HFS+ date.
std::uint32_t MacTimeFromMilliseconds(std::uint64_t value);
// An HFS+ date as the framework's time, milliseconds since 1970.
std::int64_t MillisecondsFromMacTime(std::uint32_t date);

class JournaledFileSystemObject : public FileSystemDriver::FileObject {
public:
    explicit JournaledFileSystemObject(HFSPlusDriver* driver);
    ~JournaledFileSystemObject() override = default;

    // --- the framework's file operations ---
    std::uint64_t sector_at(std::uint64_t position) override;
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override;
    // Metadata changes come with the write path: refused until then.
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;   // FILE_UNSUPPORTED
    void set_times(std::uint64_t, std::uint64_t, std::uint64_t) override;  // FILE_UNSUPPORTED
    void flush_file() override { Flush(); }

    // Reads `count` bytes at `position`. FILE_UNSUPPORTED for a null
    // buffer, or a range that leaves the object's size; a short count when
    // the object's sectors end early. FILE_READ when a journal item covers
    // only part of a run that the map cut.
    void Read(void* buffer, std::uint64_t position, std::uint64_t count, std::uint64_t& read_count);
    // Writes the dirty areas out and clears the dirty mark.
    void Flush();
    virtual void MarkDirty() { dirty = 1; }
    void AddDirtyArea(const SectorArea& area);
    // The sectors that hold the object from byte `position` on, to the end
    // of their run; empty past the object's end.
    virtual SectorArea Locate(std::uint64_t position) = 0;
    // Where byte `position` lies in the first sector that Locate gives. An
    // object that starts inside a sector (a volume header at byte 1024 of a
    // 4096-byte sector) says so here.
    virtual std::uint64_t OffsetInSector(std::uint64_t position);

    HFSPlusDriver* driver;                  // not owned
    HFSPlusJournal* journal = nullptr;      // not owned; null without a journal
    HFSPlusReplayItemsMap* replay_items;    // not owned
    std::uint8_t dirty = 0;
    std::set<SectorArea> dirty_areas;

private:
    // Reads one run of whole sectors that the map cut, from the journal's
    // copy where it has one. `out` is aligned on the sector size.
    void read_run(unsigned char* out, const SectorArea& area, const HFSPlusReplayItem& item);
};

}  // namespace hfsplus
