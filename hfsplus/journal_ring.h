#pragma once
// The journal's ring: the bytes behind the journal header up to the end of
// the journal, read as a circle. A read announces the pieces that hold the
// bytes asked for (two runs when it wraps at the ring's end, each cut into
// pieces of at most one allocation block); the caller then takes them one
// by one, with their data or only their place.
#include <cstdint>
#include <deque>

#include "hfsplus/area_limits.h"

namespace hfsplus {

class HFSPlusDriver;

class HFSPlusJournalCircularBuffer {
public:
    // A byte run on the volume: where a piece lies, and its length.
    struct Piece {
        std::uint64_t offset;
        std::uint32_t bytes;
    };

    // `begin` and `end` are the volume byte offsets of the ring's first
    // byte and of the byte behind it; FILE_CORRUPT for a `position`
    // outside them.
    HFSPlusJournalCircularBuffer(HFSPlusDriver* driver, std::uint64_t begin, std::uint64_t end,
                                 std::uint64_t position, std::uint32_t chunk);

    // Announces the pieces of the next `bytes` bytes and moves past them.
    // FILE_NO_MEMORY when the ring can't hold that many.
    void Read(std::uint64_t bytes);
    bool HasPiece() const { return !queue.empty(); }
    // Takes the front piece: its sectors, and with `into` (sector aligned,
    // room for one chunk) its bytes. FILE_CORRUPT for a piece that doesn't
    // lie on whole sectors.
    SectorArea TakePiece(unsigned char* into, std::uint32_t& bytes);
    void DropPieces() { queue.clear(); }
    // Back by `bytes`, wrapping at the ring's start; FILE_CORRUPT beyond
    // the ring's size.
    void MoveBack(std::uint64_t bytes);

    std::uint64_t Size() const { return end - begin; }
    // How far `to` lies ahead of `from` around the ring.
    std::uint64_t Distance(std::uint64_t from, std::uint64_t to) const {
        return to >= from ? to - from : Size() - (from - to);
    }

    HFSPlusDriver* driver;  // not owned
    std::uint64_t begin;
    std::uint64_t end;
    std::uint64_t position;
    std::uint32_t chunk;
    std::deque<Piece> queue;

private:
    void announce(std::uint64_t bytes);
    void move_on(std::uint64_t bytes);
};

}  // namespace hfsplus
