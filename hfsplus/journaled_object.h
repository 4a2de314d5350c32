#pragma once
// Everything that holds volume metadata (the two volume headers and the
// special files) is a file object whose bytes live in sectors of the
// volume. This is the one place where metadata reads meet the journal: a
// read asks the replay map for each run of sectors, and where the journal
// holds a newer copy of them, that copy is read instead. So a volume with a
// journal full of transactions reads as it will after replay, while nothing
// is written.
//
// It is also the one place where metadata writes enter the block cache. The
// first write empties the journal (its blocks copied to their places, its
// header marked empty); later writes go straight to the cached sectors,
// which reach the device at flush. Nothing of our own is journaled: the
// volume header's inconsistent bit covers a crash while writes are pending.
//
// Reads go through the driver's bulk transfer, which sees what the block
// cache holds. Writes take cached blocks on the grid of allocation blocks,
// the grid that file data's partial blocks use, so that a sector is always
// asked of the cache with the same count.
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

// Copies bytes into the cached sectors of an area, marking them dirty. The
// first copy of a mount passes the driver's first-write gate, whose refusal
// is FILE_READ_ONLY.
class GetBuffer {
public:
    explicit GetBuffer(HFSPlusDriver* driver) : driver(driver) {}
    // FILE_UNSUPPORTED for an empty area.
    void SetArea(const SectorArea& area);
    // The area's sectors are zeroed before the bytes go in, `bytes` being at
    // most the area's size (FILE_UNSUPPORTED above it).
    void SetSize(std::uint64_t bytes);
    // Copies `bytes` bytes to byte `offset` of the area. FILE_UNSUPPORTED for
    // null data, 0 bytes or bytes that leave the area.
    void Write(const void* data, std::uint64_t bytes, std::uint64_t offset = 0);

private:
    HFSPlusDriver* driver;  // not owned
    SectorArea area;
    bool zero = false;
};

// The cached blocks that hold sectors of the volume lie on the grid of
// allocation blocks; the last one is cut by the volume's end. Not an area:
// sector 0 alone is a unit where a block holds one sector.
struct CacheUnit {
    std::uint64_t first;
    std::uint64_t count;
    std::uint64_t end() const { return first + count; }
};
CacheUnit CacheUnitOf(const HFSPlusDriver& driver, std::uint64_t sector);

class JournaledFileSystemObject : public FileSystemDriver::FileObject {
public:
    explicit JournaledFileSystemObject(HFSPlusDriver* driver);
    ~JournaledFileSystemObject() override = default;

    // --- the framework's file operations ---
    std::uint64_t sector_at(std::uint64_t position) override;
    void read(void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& got) override;
    void write(const void* buffer, std::uint64_t position, std::uint64_t size, std::uint64_t& written) override;
    void set_size(std::uint64_t size) override;   // FILE_UNSUPPORTED
    void set_times(std::uint64_t, std::uint64_t, std::uint64_t) override;  // FILE_UNSUPPORTED
    void flush_file() override { Flush(); }

    // Reads `count` bytes at `position`. FILE_UNSUPPORTED for a null
    // buffer, or a range that leaves the object's size; a short count when
    // the object's sectors end early. FILE_READ when a journal item covers
    // only part of a run that the map cut.
    void Read(void* buffer, std::uint64_t position, std::uint64_t count, std::uint64_t& read_count);
    // Writes `count` bytes at `position` into the cached sectors, which stay
    // dirty until Flush. FILE_UNSUPPORTED on a read-only driver, for a null
    // buffer or a range that leaves the object's size (it grows first). The
    // first write replays a journal that isn't empty and empties it.
    void Write(const void* buffer, std::uint64_t position, std::uint64_t count, std::uint64_t& written);
    // Gives the cached sectors of `source` the place `target` without
    // copying them through the caller; they are dirty from then on.
    // FILE_UNSUPPORTED for a read-only driver, an empty side, equal areas
    // or areas of different length.
    void MoveSectors(const SectorArea& source, const SectorArea& target);
    // Writes the dirty areas out and clears the dirty mark.
    void Flush();
    // Empties a journal that isn't, before the first change: its blocks go
    // to their places and its header, emptied, follows them to the disk.
    void CommitJournal();
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
    void check_change(const void* buffer, std::uint64_t position, std::uint64_t count);
    void note_change();
    // Moves one piece of `length` sectors that the map didn't cut.
    void move_piece(std::uint64_t source, std::uint64_t target, std::uint64_t length);
};

}  // namespace hfsplus
