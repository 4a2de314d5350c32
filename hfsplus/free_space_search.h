#pragma once
// The four searches that pick a free run for a request, run in step: one
// by position (first fit from the start of the area) and three by length
// (a run of exactly the length, longer ones, shorter ones). Each stands on
// one candidate run at a time; SearchResult takes the best of what they
// stand on after each step, and stops as soon as the answer can't improve.
#include <cstdint>

#include "hfsplus/free_runs.h"

namespace hfsplus {

class Bitmap::Search {
public:
    // FILE_UNSUPPORTED for `needed` 0 or an empty area.
    Search(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area);
    virtual ~Search() = default;

    virtual bool IsFinished() const = 0;
    virtual void Advance() = 0;
    // The run the search stands on; empty once it is finished.
    const BlockArea& candidate() const { return current; }
    const BlockArea& area() const { return where; }

protected:
    const Bitmap* bitmap;
    std::uint32_t needed;
    BlockArea where;
    BlockArea current;
};

// The runs by their bounds from the area's first block on: every run that
// meets the area, in order, each once.
class Bitmap::SearchInArea : public Bitmap::Search {
public:
    SearchInArea(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area);
    bool IsFinished() const override;
    void Advance() override;

private:
    void Settle();
    RunBounds::const_iterator cursor;
    RunBounds::const_iterator stop;
};

// A walk up the index by length, from one key to a stop before another.
class Bitmap::SearchEqualLength : public Bitmap::Search {
public:
    SearchEqualLength(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area);
    bool IsFinished() const override;
    void Advance() override;

protected:
    struct NoWalk {};
    SearchEqualLength(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area, NoWalk)
        : Search(bitmap, needed, area) {}
    // Starts at the first key at or above (`from`, area.first) and stops
    // before `to`; an empty walk is finished at once.
    void Walk(std::uint64_t from, RunsByLength::const_iterator to);
    void Settle();
    RunsByLength::const_iterator cursor;
    RunsByLength::const_iterator stop;
};

class Bitmap::SearchGreaterLength : public Bitmap::SearchEqualLength {
public:
    SearchGreaterLength(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area);
};

// Down the index by length from the longest run shorter than needed.
class Bitmap::SearchLesserLength : public Bitmap::Search {
public:
    SearchLesserLength(const Bitmap* bitmap, std::uint32_t needed, const BlockArea& area);
    bool IsFinished() const override;
    void Advance() override;

private:
    void Finish();
    RunsByLength::const_iterator cursor;
    RunsByLength::const_iterator low;  // the last key the walk takes
};

class Bitmap::SearchResult {
public:
    SearchResult(std::uint32_t needed, Search& in_area, Search& equal, Search& greater, Search& lesser);

    bool IsDone() const;
    // Takes each unfinished search's candidate, cut to its area, as best
    // when it is strictly longer; on a tie the earlier search stays.
    void Step();
    // Moves each unfinished search on.
    void Advance();
    const BlockArea& best() const { return found; }

private:
    std::uint32_t needed;
    Search* searches[4];
    BlockArea found;
};

}  // namespace hfsplus
