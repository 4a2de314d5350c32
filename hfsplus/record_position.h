#pragma once
// A place in a B-tree: a node and the index of a record in it. An index
// equal to the node's record count stands for the place behind the last
// record.
#include <cstdint>

namespace hfsplus {

struct RecordPosition {
    static constexpr std::uint32_t kInvalidNode = 0xFFFFFFFFu;
    static constexpr std::uint16_t kInvalidIndex = 0xFFFF;

    std::uint32_t node = kInvalidNode;
    std::uint16_t index = kInvalidIndex;

    bool IsValid() const { return node != kInvalidNode; }
    bool operator==(const RecordPosition& other) const { return node == other.node && index == other.index; }
    bool operator!=(const RecordPosition& other) const { return !(*this == other); }
};

}  // namespace hfsplus
