#pragma once
// The map that a journal with transactions leaves at mount: for each run of
// volume sectors that the journal holds a newer copy of, where that copy
// lies inside the journal. Keys are the first target sector. A later item
// replaces earlier ones for the sectors they share.
#include <cstdint>
#include <map>

#include "hfsplus/area_limits.h"

namespace hfsplus {

struct HFSPlusReplayItem {
    SectorArea target;  // where the sectors belong on the volume
    SectorArea source;  // where their newest copy lies in the journal

    HFSPlusReplayItem() = default;
    // FILE_UNSUPPORTED for two areas of different length.
    HFSPlusReplayItem(const SectorArea& target_area, const SectorArea& source_area);
    bool IsEmpty() const { return target.IsEmpty(); }
};

class HFSPlusReplayItemsMap {
public:
    // Stores `item`, splitting the items it overlaps that start inside it.
    void Insert(const HFSPlusReplayItem& item);
    // The first item whose key is at or above area.first and that meets
    // `area`; an empty item for none.
    HFSPlusReplayItem Find(const SectorArea& area) const;
    // The item that a read of `area` must take into account; `area` may be
    // cut: to the item's sectors when it starts there, else to the sectors
    // before the item. An empty answer leaves `area` as it is.
    HFSPlusReplayItem Translate(SectorArea& area) const;

    bool empty() const { return items.empty(); }
    std::size_t size() const { return items.size(); }

    std::map<std::uint64_t, HFSPlusReplayItem> items;
};

}  // namespace hfsplus
