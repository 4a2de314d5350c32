#pragma once
// The journal of a journaled volume, as the mount sees it: its info block
// and header are checked, and if it holds transactions they are walked once
// to fill the replay map. Nothing is written at mount; the real replay (the
// journal's blocks copied to their places, the header marked empty) comes
// with the first write of a metadata object, and so does the making of a
// journal that was never initialised.
#include <cstdint>
#include <set>

#include "hfsplus/area_limits.h"
#include "hfsplus/hfsplus_records.h"

namespace hfsplus {

class HFSPlusDriver;
class HFSPlusReplayItemsMap;

// The journal's checksum over `size` bytes: h := (h + b) ^ (h << 8) for each
// byte, then the complement.
std::uint32_t JournalChecksum(const void* bytes, std::size_t size);

class HFSPlusJournal {
public:
    // Checks the info block and the header; FILE_UNSUPPORTED for a journal
    // on another device, FILE_CORRUPT for one that lies. A journal that isn't
    // empty fills `replay_items` (Replay(false)).
    HFSPlusJournal(HFSPlusDriver* driver, const VolumeHeader& header, HFSPlusReplayItemsMap& replay_items);
    ~HFSPlusJournal();

    // Walks the transactions from start to end. Without commit it maps
    // their blocks; commit (the write path's) copies them to their places.
    void Replay(bool commit);
    bool IsClean() const { return clean; }
    // A journal whose info block asks for a header that was never written.
    bool NeedsInitialisation() const { return needs_init; }
    // Writes an empty header and clears the info block's request, into the
    // cache; FILE_UNSUPPORTED on a read-only driver.
    void Initialise();
    // Writes what a replay or the initialisation left dirty: the volume's
    // sectors first, the journal's header behind them, so that a write cut
    // short leaves a journal that the next mount replays again.
    void FlushDirtyAreas();

    HFSPlusDriver* driver;  // not owned
    std::uint32_t attributes = 0;
    std::uint32_t info_block = 0;
    std::uint32_t block_size = 0;
    std::uint32_t total_blocks = 0;
    JournalInfoBlock journal_info{};
    JournalHeader journal_header{};
    HFSPlusReplayItemsMap* replay_items;  // not owned
    std::set<SectorArea> dirty_areas;
    bool clean = false;
    bool needs_init = false;

private:
    SectorArea header_area() const;
    void write_header();
    void mark_empty();
    void read_info();
    void check_info() const;
    void read_header();
    void check_header() const;
};

}  // namespace hfsplus
