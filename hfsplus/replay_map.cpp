#include "hfsplus/replay_map.h"

#include <vector>

#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// The part `area` of an item's target, with the source sectors that lie
// in the same place of the item.
HFSPlusReplayItem Piece(const HFSPlusReplayItem& item, const SectorArea& area) {
    const std::uint64_t skip = area.first - item.target.first;
    return HFSPlusReplayItem(area, SectorArea::FromCount(item.source.first + skip, area.GetCount()));
}

}  // namespace

HFSPlusReplayItem::HFSPlusReplayItem(const SectorArea& target_area, const SectorArea& source_area)
    : target(target_area), source(source_area) {
    if (target.GetCount() != source.GetCount()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
}

void HFSPlusReplayItemsMap::Insert(const HFSPlusReplayItem& item) {
    const SectorArea& target = item.target;
    if (target.IsEmpty()) return;
    auto low = items.lower_bound(target.first);
    auto high = items.upper_bound(target.last);
    if (low == high) {
        items.insert_or_assign(target.first, item);
        return;
    }
    // The items that start inside the new one, taken out first: the new
    // item is then laid down piece by piece between their boundaries, and
    // what each reaches beyond the new item goes back in.
    std::vector<HFSPlusReplayItem> overlapped;
    for (auto it = low; it != high; ++it) overlapped.push_back(it->second);
    items.erase(low, high);
    SectorArea rest = target;
    for (const HFSPlusReplayItem& old : overlapped) {
        if (old.target.last > target.last) {
            const SectorArea above(target.last + 1, old.target.last);
            items.insert_or_assign(above.first, Piece(old, above));
        }
        if (rest.IsEmpty()) continue;
        if (old.target.first > rest.first) {
            const SectorArea below(rest.first, old.target.first - 1);
            items.insert_or_assign(below.first, Piece(item, below));
            rest = SectorArea(old.target.first, rest.last);
        }
        const SectorArea shared = SectorArea::Intersect(old.target, rest);
        if (shared.IsEmpty()) continue;
        items.insert_or_assign(shared.first, Piece(item, shared));
        rest = shared.last >= rest.last ? SectorArea() : SectorArea(shared.last + 1, rest.last);
    }
    if (!rest.IsEmpty()) items.insert_or_assign(rest.first, Piece(item, rest));
}

HFSPlusReplayItem HFSPlusReplayItemsMap::Find(const SectorArea& area) const {
    if (area.IsEmpty()) return HFSPlusReplayItem();
    auto found = items.lower_bound(area.first);
    if (found == items.end() || SectorArea::Intersect(found->second.target, area).IsEmpty()) {
        return HFSPlusReplayItem();
    }
    return found->second;
}

HFSPlusReplayItem HFSPlusReplayItemsMap::Translate(SectorArea& area) const {
    if (items.empty()) return HFSPlusReplayItem();
    HFSPlusReplayItem item = Find(area);
    if (item.IsEmpty()) return item;
    const SectorArea shared = SectorArea::Intersect(item.target, area);
    area = area.first == shared.first ? shared : SectorArea(area.first, shared.first - 1);
    return item;
}

}  // namespace hfsplus
