#pragma once
// The node buffers of one tree: a few buffers of node size, and the list
// of which node each holds. The list is a transposition list: a hit moves a
// node one place away from eviction, a new node starts at the place of the
// next victim (position 0 once the list is full). So the nodes a search
// passes through again and again (the root, the upper index levels) keep
// their buffers while leaves come and go.
//
// The node objects are made when a node is first asked for and kept by
// number, not one per node of the tree up front: a header that claims
// millions of nodes costs nothing until they are read.
#include "fsdriver/aligned_buffer.h"
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "hfsplus/node_block.h"

namespace hfsplus {

class NodesCache {
public:
    static constexpr std::uint32_t kFreeEntry = 0xFFFFFFFFu;
    static constexpr std::uint8_t kCapacity = 8;

    NodesCache(std::uint8_t capacity, std::uint16_t node_size, std::uint32_t node_count);

    // The node `number` with a buffer bound (not necessarily loaded).
    // FILE_UNSUPPORTED at or past the node count or for node 0, which is the
    // header's and never cached; FILE_CORRUPT when the victim is dirty.
    NodeBlock& Acquire(std::uint32_t number);
    // Whether `number` holds a buffer now.
    bool Holds(std::uint32_t number) const;
    // The node known by number, bound or not; null when never asked for.
    NodeBlock* Find(std::uint32_t number) const;

    // The tree has grown to `count` nodes; FILE_UNSUPPORTED for fewer.
    void Resize(std::uint32_t count);

    bool full() const { return is_full != 0; }
    std::uint8_t capacity() const { return static_cast<std::uint8_t>(entries.size()); }
    // The node at a place of the list, kFreeEntry when the place is free.
    std::uint32_t entry_node(std::uint8_t place) const { return entries[place].node; }

private:
    struct Entry {
        std::uint32_t node = kFreeEntry;
        std::uint8_t buffer = 0;  // fixed at the entry's first place
    };

    NodeBlock& Node(std::uint32_t number);
    NodeBlock& Take(std::uint8_t place, std::uint32_t number);
    NodeBlock& AcquireFilling(std::uint32_t number);
    NodeBlock& AcquireFull(std::uint32_t number);

    std::uint16_t node_size;
    std::uint32_t node_count;
    std::map<std::uint32_t, std::unique_ptr<NodeBlock>> nodes;
    std::vector<Entry> entries;
    AlignedBuffer buffers;
    std::uint8_t is_full = 0;
};

}  // namespace hfsplus
