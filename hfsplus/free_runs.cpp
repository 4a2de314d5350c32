#include "hfsplus/free_runs.h"

#include <algorithm>
#include <cstring>

#include "hfsplus/free_space_search.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kNone = 0xFFFFFFFFu;

}  // namespace

// Puts one run into both indexes: under its length, and under its first and
// its last block (one bound for a run of one block). A run or a bound that
// is there already means that the indexes lost step with the bits.
class Bitmap::InsertIn {
public:
    InsertIn(RunsByLength& by_length, RunBounds& bounds) : by_length(by_length), bounds(bounds) {}
    void operator()(const BlockArea& run) const {
        const auto placed = by_length.insert(Key{run.GetCount(), run});
        if (!placed.second) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (!bounds.emplace(run.first, placed.first).second) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        if (run.last != run.first && !bounds.emplace(run.last, placed.first).second) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }

private:
    RunsByLength& by_length;
    RunBounds& bounds;
};

// The bounds of the runs that touch or overlap an area: from the first
// bound at or above the block before it to the last one at or below the
// block behind it, and one more when that next bound closes a run that
// began inside that reach (a run holding the whole area has no bound in it).
class Bitmap::IteratorRange {
public:
    IteratorRange(const RunBounds& bounds, const BlockArea& area) {
        const std::uint32_t low = area.first == 0 ? 0 : area.first - 1;
        const std::uint64_t high = std::uint64_t(area.last) + 1;
        begin = bounds.lower_bound(low);
        end = high > 0xFFFFFFFFu ? bounds.end() : bounds.upper_bound(static_cast<std::uint32_t>(high));
        if (end != bounds.end() && end->second->run.first <= high) ++end;
    }
    RunBounds::const_iterator begin;
    RunBounds::const_iterator end;
};

// A freed area joined with the runs beside it and in it, which leave the
// indexes; the one run that results is what goes in.
class Bitmap::MergeFor {
public:
    MergeFor(Bitmap& bitmap, const BlockArea& area) : bitmap(bitmap), joined(area) {}
    BlockArea operator()() {
        const IteratorRange range(bitmap.bounds, joined);
        bitmap.scratch.clear();
        for (auto bound = range.begin; bound != range.end; ++bound) {
            const BlockArea& run = bound->second->run;
            if (bitmap.scratch.empty() || bitmap.scratch.back() != run) bitmap.scratch.push_back(run);
        }
        for (const BlockArea& run : bitmap.scratch) {
            joined = BlockArea(std::min(joined.first, run.first), std::max(joined.last, run.last));
            bitmap.RemoveRun(bitmap.RunHolding(run));
        }
        bitmap.scratch.clear();
        return joined;
    }

private:
    Bitmap& bitmap;
    BlockArea joined;
};

Bitmap::Bitmap(const unsigned char* source, std::uint64_t length, std::uint32_t bit_total) : Bitset(bit_total) {
    if (bit_total == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (source == nullptr) {
        EnterRun(0, bit_total);
        return;
    }
    if (length * 8 < bit_total) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    std::memcpy(bytes.data(), source, bytes_count);
    Build();
}

void Bitmap::EnterRun(std::uint64_t first, std::uint64_t count) {
    if (count == 0) return;
    if (first == 0) {
        first = 1;
        --count;
    }
    if (count == 0) return;
    InsertIn(by_length, bounds)(BlockArea::FromCount(static_cast<std::uint32_t>(first),
                                                     static_cast<std::uint32_t>(count)));
}

void Bitmap::RemoveRun(RunsByLength::const_iterator run) {
    bounds.erase(run->run.first);
    bounds.erase(run->run.last);
    by_length.erase(run);
}

// One pass over the bytes, whole bytes of 0 and 0xFF at once. Bits past
// the volume's blocks in the last byte neither count nor make a run.
void Bitmap::Build() {
    by_length.clear();
    bounds.clear();
    set_bits = 0;
    std::uint64_t run_first = 0;
    std::uint64_t run_count = 0;
    auto extend = [&](std::uint64_t block, std::uint64_t count) {
        if (run_count == 0) run_first = block;
        if (run_first + run_count != block) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
        run_count += count;
    };
    auto close = [&] {
        EnterRun(run_first, run_count);
        run_count = 0;
    };
    for (std::uint64_t byte = 0; byte * 8 < bits; ++byte) {
        const std::uint64_t block = byte * 8;
        const unsigned valid = static_cast<unsigned>(std::min<std::uint64_t>(8, bits - block));
        const unsigned char inside = static_cast<unsigned char>(0xFF00u >> valid);
        const unsigned char value = static_cast<unsigned char>(bytes[byte] & inside);
        set_bits += CountBits(value);
        if (value == 0) {
            extend(block, valid);
        } else if (value == inside) {
            close();
        } else {
            for (unsigned bit = 0; bit < valid; ++bit) {
                if ((value & (0x80u >> bit)) != 0) {
                    close();
                } else {
                    extend(block + bit, 1);
                }
            }
        }
    }
    close();
    first_clear = kNone;
}

Bitmap::RunsByLength::const_iterator Bitmap::RunHolding(const BlockArea& area) const {
    const auto bound = bounds.lower_bound(area.first);
    if (bound == bounds.end()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const BlockArea& run = bound->second->run;
    if (run.first > area.first || run.last < area.last) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return bound->second;
}

void Bitmap::SetBit(std::uint32_t index, bool value) { SetRange(BlockArea(index, index), value); }

void Bitmap::SetRange(const BlockArea& area, bool used) {
    if (area.IsEmpty()) return;
    CheckArea(area);
    if (used) {
        MarkUsed(area);
    } else if (set_bits != 0) {
        MarkFree(area);
    }
}

// The bits are checked whole before any changes, so a refused area leaves
// the bitmap as it was.
void Bitmap::MarkUsed(const BlockArea& area) {
    std::uint64_t added = 0;
    for (std::uint32_t byte = area.first / 8; byte <= area.last / 8; ++byte) {
        const unsigned char mask = MaskIn(byte, area);
        if ((bytes[byte] & mask) != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        added += CountBits(mask);
    }
    if (added > std::uint64_t(bits) - set_bits) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const BlockArea indexed = area.first == 0 ? BlockArea(1, area.last) : area;
    RunsByLength::const_iterator holder = by_length.end();
    if (!indexed.IsEmpty()) holder = RunHolding(indexed);
    for (std::uint32_t byte = area.first / 8; byte <= area.last / 8; ++byte) {
        bytes[byte] = static_cast<unsigned char>(bytes[byte] | MaskIn(byte, area));
    }
    set_bits += static_cast<std::uint32_t>(added);
    if (holder == by_length.end()) return;
    const BlockArea run = holder->run;
    RemoveRun(holder);
    EnterRun(run.first, indexed.first - run.first);
    EnterRun(std::uint64_t(indexed.last) + 1, run.last - indexed.last);
}

void Bitmap::MarkFree(const BlockArea& area) {
    for (std::uint32_t byte = area.first / 8; byte <= area.last / 8; ++byte) {
        const unsigned char mask = static_cast<unsigned char>(bytes[byte] & MaskIn(byte, area));
        set_bits -= CountBits(mask);
        bytes[byte] = static_cast<unsigned char>(bytes[byte] & ~mask);
    }
    const BlockArea joined = MergeFor(*this, area)();
    EnterRun(joined.first, joined.GetCount());
}

std::uint32_t Bitmap::FindFirstClear() {
    const BlockArea run = FindFirstClearRun();
    return run.IsEmpty() ? kNone : run.first;
}

BlockArea Bitmap::FindFirstClearRun() {
    if (by_length.empty()) return BlockArea();
    const BlockArea all(0, bits - 1);
    for (SearchInArea search(this, 1, all); !search.IsFinished(); search.Advance()) {
        const BlockArea found = BlockArea::Intersect(search.candidate(), all);
        if (!found.IsEmpty()) return found;
    }
    return BlockArea();
}

BlockArea Bitmap::FindFree(std::uint32_t needed, const BlockArea& area) {
    if (needed == 0 || area.IsEmpty() || by_length.empty()) return BlockArea();
    SearchInArea in_area(this, needed, area);
    SearchEqualLength equal(this, needed, area);
    SearchGreaterLength greater(this, needed, area);
    SearchLesserLength lesser(this, needed, area);
    SearchResult result(needed, in_area, equal, greater, lesser);
    // The first step comes before the first test: a search by length may
    // stand on a run outside the area from the start, which says nothing yet.
    do {
        result.Step();
        result.Advance();
    } while (!result.IsDone());
    return result.best();
}

}  // namespace hfsplus
