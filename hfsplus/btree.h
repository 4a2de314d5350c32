#pragma once
// The B-tree engine shared by the extents overflow, catalog and attributes
// files: node reads through a small cache of node buffers, the
// descriptions that outlive them, the allocation map, and the search that
// finds the first record at a level whose key is not below a given one.
// The derived files supply the key order. Changes (insertion, deletion,
// node allocation, growth of the tree's file) stay in the node buffers and
// the header node until FlushTree writes them through the object.
#include "fsdriver/aligned_buffer.h"
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <utility>

#include "hfsplus/record_position.h"
#include "hfsplus/special_file.h"

namespace hfsplus {


class NodeBlock;
struct NodeBlockDescription;
struct KeyAndNodeIndexRecord;
class NodesCache;
class BTreeMap;
class RecordBufferTree;
class RecordBufferArray;
class AllocationFile;

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

    // --- changes ---
    // A record at `level` (1 = leaves, higher = index records). The key is
    // in on-disk form; a leaf key that is there already is FILE_EXISTS.
    void InsertRecord(const unsigned char* key, std::size_t key_size, const unsigned char* data,
                      std::size_t data_size, unsigned level);
    // The leaf record at `position`, whose key is `key`; nodes left empty
    // go, up to the root, and a root with one child gives way to it.
    void DeleteRecord(const unsigned char* key, std::size_t key_size, const RecordPosition& position);
    std::uint32_t AllocateNode(std::int8_t kind, std::uint8_t height, std::uint32_t previous);
    std::uint32_t AddNodeAfter(std::uint32_t node, std::int8_t kind);
    void FreeNode(std::uint32_t number);
    // Grows the tree's file by its clump, in place if the allocation file
    // can, else by moving it whole.
    virtual void ExtendTree();
    // Grows the tree's file until `wanted` nodes are free, so that a change
    // that needs them can't run out half way. A tree that can't grow goes
    // on with what it has when at least `least` nodes are free (a tight
    // catalog on a full volume still takes changes that split one node);
    // else the growth's refusal stands, with the nodes as they were.
    void ReserveNodes(std::uint32_t wanted, std::uint32_t least);
    // The nodes one insertion takes at most: a split spills a node's
    // records into one new node at each level, a new root above, and one
    // spare for a record that lands where neither half has room.
    std::uint32_t InsertionReserve() const { return std::uint32_t(depth()) + 2; }
    // Writes the header node, the dirty nodes and the map parts, then the
    // object's dirty areas.
    virtual void FlushTree();
    void MarkDirty() override;
    // Where the tree takes its space from when it grows; none refuses growth.
    void SetAllocationFile(AllocationFile* file) { allocation = file; }

    bool IsEmpty() const { return node_bytes == 0; }
    std::uint16_t node_size() const { return node_bytes; }
    std::uint32_t total_nodes() const { return total; }
    std::uint16_t depth() const;
    std::uint32_t root() const;
    std::uint32_t leaf_records() const;
    std::uint32_t free_nodes() const;
    std::uint32_t first_leaf() const;
    std::uint32_t last_leaf() const;

protected:
    // Reads a node's bytes and checks its layout; makes its description
    // and, on leaf and index nodes, its limits.
    void ReadNode(std::uint32_t number, NodeBlock& node);
    void FillNodeLimits(NodeBlock& node);
    const BTHeaderRec& HeaderRecord() const;
    // The header record for a change; the header node turns dirty.
    BTHeaderRec& ChangeHeader();
    // Refreshes a node's description and limits from its bytes.
    void UpdateNodeLimits(std::uint32_t number);
    // FILE_READ_ONLY on a read-only driver, FILE_UNSUPPORTED for an empty tree.
    void CheckWritable() const;

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

    // --- the writing half ---
    // The node's buffer without a read: for a node just allocated.
    NodeBlock& BindNode(std::uint32_t number);
    void WriteNode(std::uint32_t number, NodeBlock& node);
    void WriteMapParts();
    // This file's bit of the driver's open status.
    std::uint8_t CleanBit() const;
    // Writes the dirty nodes that hold buffers, so that any may be evicted.
    void WriteCachedNodes();
    static constexpr unsigned kHeaderRank = 0x101;
    static constexpr unsigned kFreedRank = kHeaderRank + 1;
    unsigned FlushRank(std::uint32_t number, const NodeBlock& node) const;
    void FlushNodes(unsigned rank);
    // The volume header and the allocation file first when the file grew in place.
    void WriteGrownFork();
    std::uint32_t GetLastNodeOfLevel(unsigned level);
    bool IsAppendPosition(const RecordPosition& position, unsigned level);
    bool RootHasSibling();
    bool FitsAt(NodeBlock& node, std::uint16_t index, std::size_t size);
    bool MayTakeNodes(const RecordPosition& position, unsigned level, bool append, std::size_t size);
    std::uint16_t FindSplitPoint(NodeBlock& node, std::size_t size);
    void InsertPending(NodeBlock& node, std::uint16_t index, RecordBufferArray& array);
    // Takes records from the front of the array while they fit behind the last.
    void AppendPending(NodeBlock& node, RecordBufferArray& array);
    void AppendPath(unsigned level, std::int8_t kind);
    void InsertPath(const RecordPosition& position, unsigned level);
    void SplitPath(const RecordPosition& position, unsigned level, std::int8_t kind);
    void DrainPending(unsigned level, std::uint32_t node);
    void MakeRootIndex(unsigned level);
    // A new index root over the present one, which may then split.
    void GrowRoot();
    // A node behind `node` on its level; the root first gets a parent.
    std::uint32_t NodeAfter(std::uint32_t node, std::int8_t kind, unsigned level);
    void AddToParent(std::uint32_t node, unsigned level, std::int8_t kind);
    void CollectLevel(std::uint32_t new_root, std::uint32_t first_node, RecordBufferArray& array);
    void InsertIndexRecord(std::uint32_t child, unsigned level);
    void UpdateParentKey(std::uint32_t node, unsigned level, const KeyAndNodeIndexRecord& old_key);
    // Puts the array's records in at `index`, or behind the last record.
    void PlaceRecords(std::uint32_t node, std::uint16_t index, unsigned level);
    // Removes the index records that led to `freed`, from `from_level` up,
    // as far as they leave nodes empty.
    void RemoveIndexRecordsAbove(const unsigned char* key, std::size_t key_size, std::uint32_t freed,
                                 unsigned from_level, unsigned depth_before);
    void MergeIntoPrevious(std::uint32_t number, unsigned level);
    void ShrinkRoot();
    void UnlinkNode(NodeBlock& node, NodeBlockDescription& description);
    void SetLink(std::uint32_t node, bool forward, std::uint32_t value);
    void AddMapNode(std::uint32_t previous);
    [[noreturn]] void GiveBackGrowth(const ExtentsDescriptorArray& old_extents);
    void CopyFromOldPlace(const ExtentsDescriptorArray& old_extents, const ExtentsDescriptorArray& new_extents);
    void StoreFork(std::uint32_t new_nodes, std::uint32_t old_extent_count, std::uint32_t old_clump);

    std::unique_ptr<AlignedBuffer> header_buffer;
    std::unique_ptr<RecordBufferTree> pending;
    std::uint8_t map_dirty = 0;
    unsigned insert_depth = 0;  // nesting of InsertRecord
    AllocationFile* allocation = nullptr;  // not owned
    // The file's first block and its length as the volume header on the disk has them.
    std::uint32_t placed_start = 0;
    std::uint32_t placed_blocks = 0;
    // Nodes written into the cache since the last flush: their rank in its
    // order, and their record count.
    std::map<std::uint32_t, std::pair<unsigned, std::uint16_t>> unflushed;
    std::map<std::uint32_t, std::uint16_t> disk_counts;  // records of nodes as the disk has them
    std::set<std::uint32_t> fresh;  // nodes allocated since the last flush
};

}  // namespace hfsplus
