#include "hfsplus/free_space_search.h"

#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint64_t kLargest = 0xFFFFFFFFu;

// A key to look up (length, first block) with; a length past 32 bits
// stands above every key.
bool ProbeKey(std::uint64_t length, std::uint32_t first, Bitmap::Key& key) {
    if (length > kLargest) return false;
    key = Bitmap::Key{static_cast<std::uint32_t>(length), BlockArea(first, first)};
    return true;
}

Bitmap::RunsByLength::const_iterator AtOrAbove(const Bitmap::RunsByLength& runs, std::uint64_t length,
                                               std::uint32_t first) {
    Bitmap::Key key{};
    return ProbeKey(length, first, key) ? runs.lower_bound(key) : runs.end();
}

Bitmap::RunsByLength::const_iterator Above(const Bitmap::RunsByLength& runs, std::uint64_t length,
                                           std::uint32_t first) {
    Bitmap::Key key{};
    return ProbeKey(length, first, key) ? runs.upper_bound(key) : runs.end();
}

}  // namespace

Bitmap::Search::Search(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area)
    : bitmap(bitmap), needed(needed), where(area) {
    if (needed == 0 || area.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

// The stop is the first bound above the area, or the one behind it when
// that bound closes a run that began inside the area or before it: a run
// that holds the whole area has its last bound there and none inside.
Bitmap::SearchInArea::SearchInArea(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area)
    : Search(bitmap, needed, area) {
    const RunBounds& bounds = bitmap->run_bounds();
    cursor = bounds.lower_bound(area.first);
    stop = bounds.upper_bound(area.last);
    if (stop != bounds.end() && stop->second->run.first <= area.last) ++stop;
    Settle();
}

void Bitmap::SearchInArea::Settle() {
    if (cursor == stop) {
        cursor = stop = bitmap->run_bounds().end();
        current = BlockArea();
    } else {
        current = cursor->second->run;
    }
}

bool Bitmap::SearchInArea::IsFinished() const {
    return cursor == bitmap->run_bounds().end() && stop == bitmap->run_bounds().end();
}

void Bitmap::SearchInArea::Advance() {
    if (IsFinished()) return;
    const auto run = cursor->second;
    do {
        ++cursor;
    } while (cursor != stop && cursor->second == run);
    Settle();
}

Bitmap::SearchEqualLength::SearchEqualLength(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area)
    : Search(bitmap, needed, area) {
    // Behind the last key of this length: the first at or above the next length.
    Walk(needed, AtOrAbove(bitmap->runs_by_length(), std::uint64_t(needed) + 1, 0));
}

void Bitmap::SearchEqualLength::Walk(std::uint64_t from, RunsByLength::const_iterator to) {
    cursor = AtOrAbove(bitmap->runs_by_length(), from, where.first);
    stop = to;
    // A start at or behind the stop is an empty walk.
    if (cursor != stop && stop != bitmap->runs_by_length().end() && !(*cursor < *stop)) cursor = stop;
    Settle();
}

void Bitmap::SearchEqualLength::Settle() {
    if (cursor == stop) {
        cursor = stop = bitmap->runs_by_length().end();
        current = BlockArea();
    } else {
        current = cursor->run;
    }
}

bool Bitmap::SearchEqualLength::IsFinished() const {
    return cursor == bitmap->runs_by_length().end() && stop == bitmap->runs_by_length().end();
}

void Bitmap::SearchEqualLength::Advance() {
    if (IsFinished()) return;
    ++cursor;
    Settle();
}

Bitmap::SearchGreaterLength::SearchGreaterLength(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area)
    : SearchEqualLength(bitmap, needed, area, NoWalk{}) {
    Walk(std::uint64_t(needed) + 1, Above(bitmap->runs_by_length(), bitmap->bit_count(), area.first));
}

Bitmap::SearchLesserLength::SearchLesserLength(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area)
    : Search(bitmap, needed, area) {
    const RunsByLength& runs = bitmap->runs_by_length();
    if (needed == 1 || runs.empty() || runs.begin()->length >= needed) {
        Finish();
        return;
    }
    low = AtOrAbove(runs, 1, area.first);
    cursor = Above(runs, needed - 1, area.first);
    if (cursor == runs.end()) --cursor;
    while (cursor->length >= needed && cursor != low && cursor != runs.begin()) --cursor;
    if (cursor->length >= needed || low == runs.end() || *cursor < *low) {
        Finish();
        return;
    }
    current = cursor->run;
}

void Bitmap::SearchLesserLength::Finish() {
    cursor = low = bitmap->runs_by_length().end();
    current = BlockArea();
}

bool Bitmap::SearchLesserLength::IsFinished() const { return cursor == bitmap->runs_by_length().end(); }

void Bitmap::SearchLesserLength::Advance() {
    if (IsFinished()) return;
    if (cursor == low) {
        Finish();
        return;
    }
    --cursor;
    current = cursor->run;
}

Bitmap::SearchResult::SearchResult(std::uint32_t needed, Search& in_area, Search& equal, Search& greater,
                                   Search& lesser)
    : needed(needed), searches{&in_area, &equal, &greater, &lesser} {}

bool Bitmap::SearchResult::IsDone() const {
    if (found.GetCount() >= needed) return true;
    if (searches[0]->IsFinished()) return true;
    if (!searches[1]->IsFinished() || !searches[2]->IsFinished()) return false;
    const Search& lesser = *searches[3];
    return lesser.IsFinished() ||
           BlockArea::Intersect(lesser.candidate(), lesser.area()).GetCount() <= found.GetCount();
}

void Bitmap::SearchResult::Step() {
    for (Search* search : searches) {
        if (search->IsFinished()) continue;
        const BlockArea cut = BlockArea::Intersect(search->candidate(), search->area());
        if (!cut.IsEmpty() && cut.GetCount() > found.GetCount() && found.GetCount() != needed) found = cut;
    }
}

void Bitmap::SearchResult::Advance() {
    for (Search* search : searches) {
        if (!search->IsFinished()) search->Advance();
    }
}

}  // namespace hfsplus
