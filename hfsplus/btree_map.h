#pragma once
// Which nodes of a tree are in use: the bits of the map record of the
// header node, then those of each map node down the header's forward link,
// one bit per node number, most significant bit first. The reading driver
// only looks at it; node allocation of the write path takes its free bits.
#include <cstdint>
#include <vector>

namespace hfsplus {

class SpecialFileWithBTree;

class BTreeMap {
public:
    // Gathers the map records. FILE_CORRUPT for a map node of another kind,
    // a link past the tree's nodes, or a chain longer than the tree.
    void Load(SpecialFileWithBTree& tree);

    // FILE_CORRUPT for a node the map doesn't cover.
    bool IsAllocated(std::uint32_t node) const;
    // The lowest node number whose bit is clear; none gives 0xFFFFFFFF.
    std::uint32_t FindFirstFree() const;
    std::uint64_t bit_count() const { return static_cast<std::uint64_t>(bits.size()) * 8; }
    // The nodes whose map records make the map, in order; 0 is the header node.
    const std::vector<std::uint32_t>& map_nodes() const { return nodes; }
    bool ready() const { return is_ready; }

private:
    void AddRecord(const unsigned char* record, std::size_t size, std::uint32_t node);

    std::vector<unsigned char> bits;
    std::vector<std::uint32_t> nodes;
    std::uint32_t covered_nodes = 0;  // the tree's total: bits past it say nothing
    bool is_ready = false;
};

}  // namespace hfsplus
