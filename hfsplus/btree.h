#pragma once
// The B-tree engine shared by the extents overflow, catalog and attributes
// files: node reads through a small cache of node buffers, the
// descriptions that outlive them, the allocation map, and the search that
// finds the first record at a level whose key is not below a given one.
// The derived files supply the key order. (The insertion, deletion and
// node allocation of the write path join this class.)
#include <cstddef>
#include <cstdint>
#include <memory>

#include "hfsplus/record_position.h"
#include "hfsplus/special_file.h"

namespace hfsplus {

class NodeBlock;
struct NodeBlockDescription;
class NodesCache;
class BTreeMap;

class SpecialFileWithBTree : public SpecialFile {
public:
    // Reads node 0 and its header record; a fork without blocks leaves the
    // tree empty, and every later operation raises FILE_UNSUPPORTED.
    SpecialFileWithBTree(HFSPlusDriver* driver, std::uint32_t fork_id, std::uint16_t node_size,
                         std::uint32_t max_key_size, std::uint32_t max_data_size);
    ~SpecialFileWithBTree() override;

    // Node size / block size, at least 1: a tree grows by whole nodes.
    std::uint32_t GetAllocationUnit() const override;

    // The key order of the file: negative, 0 or positive. Keys are in
    // on-disk form, key length field included; sizes are what the buffers
    // hold.
    virtual int CompareKeys(const unsigned char* a, std::size_t a_size, const unsigned char* b,
                            std::size_t b_size) const = 0;

    // The first record at `level` (1 = leaves) whose key is not below
    // `key`; the invalid position when the tree is empty or the level
    // above its depth.
    RecordPosition FindPosition(const unsigned char* key, std::size_t key_size, unsigned level);
    // The node, its buffer bound and loaded; FILE_CORRUPT at or past the
    // total nodes.
    NodeBlock& GetNode(std::uint32_t number);
    const NodeBlockDescription& GetNodeDescription(std::uint32_t number);
    // Builds the node allocation map; run once the fork's extents are complete.
    void LoadMap();

    bool IsEmpty() const { return node_bytes == 0; }
    std::uint16_t node_size() const { return node_bytes; }
    std::uint32_t total_nodes() const { return total; }
    std::uint16_t depth() const;
    std::uint32_t root() const;
    std::uint32_t leaf_records() const;

protected:
    std::uint16_t node_bytes = 0;
    std::uint32_t total = 0;
    std::uint32_t max_key_bytes;
    std::uint32_t max_data_bytes;
    std::unique_ptr<NodesCache> cache;
    std::unique_ptr<NodeBlock> header_node;
    std::unique_ptr<BTreeMap> map;
};

}  // namespace hfsplus
