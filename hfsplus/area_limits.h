#pragma once
// A run of units (allocation blocks or sectors) by its first and last unit,
// both inclusive. first = last = 0 is the empty area, and so is any area
// whose last + 1 is its first: block 0 and sector 0 of a volume never hold
// anything that an area here would name, so unit 0 alone needs no area.
#include <algorithm>
#include <cstdint>

namespace hfsplus {

template <typename T>
struct AreaLimits {
    T first = 0;
    T last = 0;

    AreaLimits() = default;
    AreaLimits(T first_unit, T last_unit) : first(first_unit), last(last_unit) {}
    // The area of `count` units from `start`; empty for a count of 0.
    static AreaLimits FromCount(T start, T count) {
        return count == 0 ? AreaLimits() : AreaLimits(start, static_cast<T>(start + count - 1));
    }

    bool IsEmpty() const { return (first == 0 && last == 0) || static_cast<T>(last + 1) == first || last < first; }
    T GetCount() const { return IsEmpty() ? 0 : static_cast<T>(last + 1 - first); }
    bool Contains(T unit) const { return !IsEmpty() && unit >= first && unit <= last; }

    static AreaLimits Intersect(const AreaLimits& a, const AreaLimits& b) {
        if (a.IsEmpty() || b.IsEmpty()) return AreaLimits();
        T low = std::max(a.first, b.first);
        T high = std::min(a.last, b.last);
        return low > high ? AreaLimits() : AreaLimits(low, high);
    }
    // What is left of `a` when `b` shares its first or its last unit with
    // it; anything else gives the empty area.
    static AreaLimits Subtract(const AreaLimits& a, const AreaLimits& b) {
        if (a.IsEmpty() || b.IsEmpty()) return AreaLimits();
        if (b.first == a.first && b.last < a.last) return AreaLimits(static_cast<T>(b.last + 1), a.last);
        if (b.last == a.last && b.first > a.first) return AreaLimits(a.first, static_cast<T>(b.first - 1));
        return AreaLimits();
    }
    // The hull of two areas that touch or overlap; empty for two apart.
    static AreaLimits Unite(const AreaLimits& a, const AreaLimits& b) {
        if (a.IsEmpty()) return b;
        if (b.IsEmpty()) return a;
        if (static_cast<T>(a.last + 1) < b.first || static_cast<T>(b.last + 1) < a.first) return AreaLimits();
        return AreaLimits(std::min(a.first, b.first), std::max(a.last, b.last));
    }
    AreaLimits KeepFirst(T n) const { return n >= GetCount() ? *this : FromCount(first, n); }
    AreaLimits SkipFirst(T n) const {
        return n >= GetCount() ? AreaLimits() : AreaLimits(static_cast<T>(first + n), last);
    }

    bool operator==(const AreaLimits& other) const {
        return (IsEmpty() && other.IsEmpty()) || (first == other.first && last == other.last);
    }
    bool operator!=(const AreaLimits& other) const { return !(*this == other); }
    // First ascending, then count ascending.
    bool operator<(const AreaLimits& other) const {
        return first != other.first ? first < other.first : GetCount() < other.GetCount();
    }
};

using BlockArea = AreaLimits<std::uint32_t>;
using SectorArea = AreaLimits<std::uint64_t>;

}  // namespace hfsplus
