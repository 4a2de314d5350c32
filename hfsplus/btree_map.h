#pragma once
// Which nodes of a tree are in use: the bits of the map record of the
// header node, then those of each map node down the header's forward link,
// one bit per node number, most significant bit first. In memory they are
// one Bitmap over all node numbers of the tree; the records on the disk
// are its parts, in order, each as long as its record.
#include <cstdint>
#include <memory>
#include <vector>

#include "hfsplus/free_runs.h"

namespace hfsplus {

class SpecialFileWithBTree;

class BTreeMap {
public:
    static constexpr std::uint32_t kNone = 0xFFFFFFFFu;

    // Gathers the map records. FILE_CORRUPT for a map node of another kind,
    // a link past the tree's nodes, or a chain longer than the tree.
    void Load(SpecialFileWithBTree& tree);

    // FILE_CORRUPT for a node the map doesn't cover.
    bool IsAllocated(std::uint32_t node) const;
    // The lowest node number whose bit is clear; none gives kNone.
    std::uint32_t FindFirstFree() const;
    void SetAllocated(std::uint32_t node, bool used);
    // The bits the records on the disk hold; nodes past them can't be
    // taken before a map node has joined.
    std::uint64_t bit_count() const { return capacity_bytes * 8; }
    std::uint32_t covered_nodes() const { return bitmap ? bitmap->bit_count() : 0; }
    // The nodes whose map records make the map, in order; 0 is the header node.
    const std::vector<std::uint32_t>& map_nodes() const { return nodes; }
    bool ready() const { return is_ready; }

    // A new map node with a record of `record_size` bytes behind the others.
    void AddMapNode(std::uint32_t node, std::uint32_t record_size);
    // The tree's total has grown to `total` nodes: the new ones are free.
    void Resize(std::uint32_t total);
    // Part `part` (the map record of map_nodes()[part]) into `record`.
    void CopyPart(std::size_t part, unsigned char* record) const;
    std::size_t part_count() const { return nodes.size(); }

private:
    void AddRecord(const unsigned char* record, std::size_t size, std::uint32_t node);
    // The bitmap anew over `total` nodes from the record bytes.
    void Rebuild(std::uint32_t total);

    std::vector<unsigned char> bytes;  // the records' bytes while loading and growing
    std::vector<std::uint32_t> nodes;
    std::vector<std::uint32_t> record_sizes;
    std::uint64_t capacity_bytes = 0;
    std::unique_ptr<Bitmap> bitmap;
    bool is_ready = false;
};

}  // namespace hfsplus
