#pragma once
// A bit array of allocation blocks (or of tree nodes) that also keeps its
// runs of clear bits in two ordered indexes: by length, for the run that
// fits a request best, and by position, for the first run in an area. A
// request is then answered in a few index steps, without a scan of the
// bits; only the load goes through them once.
//
// Invariant: the indexes hold exactly the maximal runs of clear bits, each
// once. Block 0 is never part of a run: it holds the boot blocks and the
// volume header (node 0 is a tree's header node), and a block area can't
// name it alone.
#include <cstdint>
#include <deque>
#include <map>
#include <set>

#include "hfsplus/bitset.h"

namespace hfsplus {

class Bitmap : public Bitset {
public:
    struct Key {
        std::uint32_t length;
        BlockArea run;
        // Length ascending, then first block ascending.
        bool operator<(const Key& other) const {
            return length != other.length ? length < other.length : run.first < other.run.first;
        }
    };
    using RunsByLength = std::set<Key>;
    using RunBounds = std::map<std::uint32_t, RunsByLength::const_iterator>;

    class Search;
    class SearchInArea;
    class SearchEqualLength;
    class SearchGreaterLength;
    class SearchLesserLength;
    class SearchResult;

    // `bits` blocks taken from `length` bytes, or all free without bytes.
    // FILE_UNSUPPORTED for no bits or for bytes too few for them.
    Bitmap(const unsigned char* bytes, std::uint64_t length, std::uint32_t bits);

    void SetBit(std::uint32_t index, bool value) override;
    // Used: every bit must be clear and one free run must hold the whole
    // area, else FILE_CORRUPT. Free: clearing a clear bit is no error.
    void SetRange(const BlockArea& area, bool used) override;
    std::uint32_t FindFirstClear() override;
    BlockArea FindFirstClearRun() override;
    // A free area of `needed` blocks in `area` if one exists; else the
    // longest one the search met. It may be longer than needed.
    BlockArea FindFree(std::uint32_t needed, const BlockArea& area);

    // The indexes anew from the bits.
    void Build();

    const RunsByLength& runs_by_length() const { return by_length; }
    const RunBounds& run_bounds() const { return bounds; }

private:
    class IteratorRange;
    class InsertIn;
    class MergeFor;

    // Block 0 cut off; an empty run is not entered.
    void EnterRun(std::uint64_t first, std::uint64_t count);
    void RemoveRun(RunsByLength::const_iterator run);
    // The run that holds all of `area`; FILE_CORRUPT when none does.
    RunsByLength::const_iterator RunHolding(const BlockArea& area) const;
    void MarkUsed(const BlockArea& area);
    void MarkFree(const BlockArea& area);

    RunsByLength by_length;
    RunBounds bounds;
    std::deque<BlockArea> scratch;
};

}  // namespace hfsplus
