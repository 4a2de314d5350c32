#pragma once
// The B-tree engine shared by the extents overflow, catalog and attributes
// files: node reads through a small cache of node buffers, the
// descriptions that outlive them, the allocation map, and the search that
// finds the first record at a level whose key is not below a given one.
// The derived files supply the key order. (The insertion, deletion and
// node allocation of the write path join this class.)
#include "fsdriver/aligned_buffer.h"
#include <cstddef>
#include <cstdint>
#include <memory>

#include "hfsplus/record_position.h"
#include "hfsplus/special_file.h"

namespace hfsplus {


class NodeBlock;
struct NodeBlockDescription;
struct KeyAndNodeIndexRecord;
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
    const BTreeMap& GetMap() const;

    // The leaf record behind `position`, across the forward link at the end
    // of a node; the invalid position behind the last leaf. FILE_CORRUPT for
    // an invalid position, and for a link to a node that isn't a leaf or
    // whose first key isn't above the last key left behind: keys only grow
    // along the leaves, so no walk through here can go round in a circle.
    RecordPosition GetNextLeafPosition(const RecordPosition& position);
    // Whether `next` may stand behind `previous` in the leaf chain; the
    // key order by default. A file whose disk order may differ from its
    // search order (the catalog) answers more loosely.
    virtual bool FollowsInChain(const KeyAndNodeIndexRecord& previous, const KeyAndNodeIndexRecord& next) const;
    // The leaf at a position with the index below its record count, or
    // FILE_NOT_FOUND.
    NodeBlock& GetLeafAt(const RecordPosition& position);

    bool IsEmpty() const { return node_bytes == 0; }
    std::uint16_t node_size() const { return node_bytes; }
    std::uint32_t total_nodes() const { return total; }
    std::uint16_t depth() const;
    std::uint32_t root() const;
    std::uint32_t leaf_records() const;

protected:
    // Reads a node's bytes and checks its layout; makes its description
    // and, on leaf and index nodes, its limits.
    void ReadNode(std::uint32_t number, NodeBlock& node);
    void FillNodeLimits(NodeBlock& node);
    const BTHeaderRec& HeaderRecord() const;

    std::uint16_t node_bytes = 0;
    std::uint32_t total = 0;
    std::uint32_t max_key_bytes;
    std::uint32_t max_data_bytes;
    std::unique_ptr<NodesCache> cache;
    std::unique_ptr<NodeBlock> header_node;
    std::unique_ptr<BTreeMap> map;

private:
    void CheckHeaderRecord();
    // The child of `node` that leads towards `key`.
    std::uint32_t ChooseChild(NodeBlock& node, const unsigned char* key, std::size_t key_size);
    std::uint32_t Descend(const unsigned char* key, std::size_t key_size, unsigned level);
    RecordPosition WalkRight(std::uint32_t node, const unsigned char* key, std::size_t key_size, unsigned level);
    // FILE_CORRUPT unless the node is of the kind and height a level calls for.
    static void CheckLevel(const NodeBlockDescription& description, unsigned level);
    int CompareWithLimit(const unsigned char* key, std::size_t key_size, const KeyAndNodeIndexRecord& limit) const;

    std::unique_ptr<AlignedBuffer> header_buffer;
};

}  // namespace hfsplus
