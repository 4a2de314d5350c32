// Insertion: a record goes to the level's pending array, then into the
// node where its key belongs. A node without room gives up its records
// from some point on to the array, and the records of the array go on into
// the next node or into new ones, each of which gets its index record one
// level up. Parent keys follow a node whose first key changed.
#include <cstring>

#include "hfsplus/btree.h"
#include "hfsplus/btree_key.h"
#include "hfsplus/btree_pending.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/node_block.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// Counts the nesting of insertions: the outermost one starts with empty
// arrays, whatever a failed insertion before it left there.
class Nesting {
public:
    Nesting(unsigned& depth, RecordBufferTree& pending) : depth(depth) {
        if (depth++ == 0) pending.Clear();
    }
    ~Nesting() { --depth; }

private:
    unsigned& depth;
};

std::int8_t KindOfLevel(unsigned level) { return level == 1 ? kLeafNode : kIndexNode; }


}  // namespace

void SpecialFileWithBTree::InsertRecord(const unsigned char* key, std::size_t key_size, const unsigned char* data,
                                        std::size_t data_size, unsigned level) {
    CheckWritable();
    if (level < 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    const bool outermost = insert_depth == 0;
    Nesting nesting(insert_depth, *pending);
    RecordBufferArray& array = pending->Level(level);
    if (!array.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    array.Append(key, key_size, data, data_size);
    // A record must stand alone in an empty node, its offset entry with it,
    // or no split could ever place it.
    const std::size_t size = array.Front().size();
    if (size + 2 > static_cast<std::size_t>(node_bytes) - 16) {
        array.Clear();
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const RecordPosition position = FindPosition(key, key_size, level);
    if (!position.IsValid() && !(level == 1 ? first_leaf() == 0 : depth() <= 1)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const bool append = IsAppendPosition(position, level);
    if (level == 1 && !append) {
        NodeBlock& node = GetNode(position.node);
        if (CompareKeys(key, key_size, node.GetKey(position.index), node.GetKeySize(position.index)) == 0) {
            array.Clear();
            Common::Raise(ERROR_TAG, Common::Failures::FILE_EXISTS);
        }
    }
    // Every node the insertion may split into is there before the first
    // node changes: a tree that can't grow refuses with nothing touched.
    if (outermost && MayTakeNodes(position, level, append, size)) {
        try {
            ReserveNodes(InsertionReserve(), InsertionReserve());
        } catch (const Common::Error&) {
            array.Clear();
            throw;
        }
    }
    if (append) {
        AppendPath(level, KindOfLevel(level));
    } else if (FitsAt(GetNode(position.node), position.index, size)) {
        InsertPath(position, level);
    } else {
        SplitPath(position, level, KindOfLevel(level));
    }
    if (level == 1) ChangeHeader().leafRecords_.set(leaf_records() + 1);
}

// Whether the record may not go into its node as it stands: a new node,
// a split, or a root over a single leaf.
bool SpecialFileWithBTree::MayTakeNodes(const RecordPosition& position, unsigned level, bool append, std::size_t size) {
    if (!append) return !FitsAt(GetNode(position.node), position.index, size);
    const bool fresh = level == 1 ? (first_leaf() == 0 || last_leaf() == 0) : depth() < 2;
    if (fresh || GetNodeDescription(root()).kind == kLeafNode) return true;
    return !GetNode(GetLastNodeOfLevel(level)).HasRoomFor(size);
}

void SpecialFileWithBTree::ReserveNodes(std::uint32_t wanted, std::uint32_t least) {
    while (free_nodes() < wanted) {
        const std::uint32_t before = free_nodes();
        try {
            ExtendTree();
        } catch (const Common::Error&) {
            if (free_nodes() >= least) return;
            throw;
        }
        if (free_nodes() <= before) Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    }
}

bool SpecialFileWithBTree::IsAppendPosition(const RecordPosition& position, unsigned level) {
    if (level > depth() || !position.IsValid()) return true;
    return position.index >= GetNodeDescription(position.node).record_count;
}

bool SpecialFileWithBTree::RootHasSibling() {
    return depth() != 0 && root() != 0 && GetNodeDescription(root()).forward_link != 0;
}

std::uint16_t SpecialFileWithBTree::FindSplitPoint(NodeBlock& node, std::size_t size) {
    const std::size_t free = node.GetFreeSize();
    std::size_t sum = 0;
    for (std::uint16_t index = node.GetRecordCount(); index-- > 0;) {
        sum += node.GetRecordSize(index) + 2u;
        if (free + sum >= size + 2) return index;
    }
    Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

bool SpecialFileWithBTree::FitsAt(NodeBlock& node, std::uint16_t index, std::size_t size) {
    if (index < node.GetRecordCount()) return index <= FindSplitPoint(node, size);
    return node.HasRoomFor(size);
}

void SpecialFileWithBTree::InsertPending(NodeBlock& node, std::uint16_t index, RecordBufferArray& array) {
    if (index >= node.GetRecordCount()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::size_t records = array.size();
    for (std::size_t taken = 0; taken < records; ++taken) {
        const std::vector<unsigned char> record = array.Front();
        if (!node.HasRoomFor(record.size())) {
            if (!FitsAt(node, index, record.size())) break;
            const std::uint16_t split = FindSplitPoint(node, record.size());
            if (split < index) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            // The records from the split point on wait behind the others,
            // which all sort below them.
            for (std::uint16_t moved = split; moved < node.GetRecordCount(); ++moved) {
                array.PushBack(node.GetRecord(moved), node.GetRecordSize(moved));
            }
            while (node.GetRecordCount() > split) node.RemoveRecordAt(static_cast<std::uint16_t>(node.GetRecordCount() - 1));
        }
        node.InsertRecordAt(index, record.data(), static_cast<std::uint16_t>(record.size()));
        array.PopFront();
        ++index;
        if (index >= node.GetRecordCount()) break;
    }
    node.SetDirty(true);
}

void SpecialFileWithBTree::AppendPending(NodeBlock& node, RecordBufferArray& array) {
    while (!array.empty() && node.HasRoomFor(array.Front().size())) {
        const std::vector<unsigned char>& record = array.Front();
        node.InsertRecordAt(node.GetRecordCount(), record.data(), static_cast<std::uint16_t>(record.size()));
        array.PopFront();
    }
    node.SetDirty(true);
}

std::uint32_t SpecialFileWithBTree::GetLastNodeOfLevel(unsigned level) {
    if (level == 1) return last_leaf();
    if (level > depth()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint32_t node = root();
    for (unsigned height = depth(); height > level; --height) {
        NodeBlock& block = GetNode(node);
        if (block.GetRecordCount() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        node = block.GetChild(static_cast<std::uint16_t>(block.GetRecordCount() - 1));
        if (node == 0 || node >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    for (std::uint32_t steps = 0; GetNodeDescription(node).forward_link != 0; ++steps) {
        if (steps >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        node = GetNodeDescription(node).forward_link;
    }
    return node;
}

void SpecialFileWithBTree::AppendPath(unsigned level, std::int8_t kind) {
    RecordBufferArray& array = pending->Level(level);
    std::uint32_t last = 0;
    const bool fresh = kind == kLeafNode ? (first_leaf() == 0 || last_leaf() == 0) : depth() < 2;
    if (fresh) {
        last = AllocateNode(kind, static_cast<std::uint8_t>(level), 0);
        AppendPending(GetNode(last), array);
        UpdateNodeLimits(last);
        if (kind == kIndexNode) {
            BTHeaderRec& header = ChangeHeader();
            header.rootNode_.set(last);
            header.treeDepth_.set(static_cast<std::uint16_t>(level));
        }
    } else {
        last = GetLastNodeOfLevel(level);
        if (GetNode(last).HasRoomFor(array.Front().size())) {
            AppendPending(GetNode(last), array);
            UpdateNodeLimits(last);
            if (GetNodeDescription(root()).kind == kLeafNode) MakeRootIndex(level);
        } else {
            if (kind == kLeafNode && GetNodeDescription(root()).kind == kLeafNode) MakeRootIndex(level);
            last = AllocateNode(kind, static_cast<std::uint8_t>(level), last);
            AppendPending(GetNode(last), array);
            UpdateNodeLimits(last);
            AddToParent(last, level, kind);
        }
    }
    if (!array.empty()) DrainPending(level, last);
}

void SpecialFileWithBTree::InsertPath(const RecordPosition& position, unsigned level) {
    RecordBufferArray& array = pending->Level(level);
    const bool first = position.index == 0;
    KeyAndNodeIndexRecord old_key;
    if (first) old_key = CopyKeyOf(GetNode(position.node), 0);
    InsertPending(GetNode(position.node), position.index, array);
    UpdateNodeLimits(position.node);
    if (first) UpdateParentKey(position.node, level, old_key);
    if (GetNodeDescription(root()).kind == kLeafNode) MakeRootIndex(GetNodeDescription(root()).height);
    if (!array.empty()) DrainPending(level, position.node);
}

// The node is full from the index on: a new node behind it takes the
// records from there, the new one first. The new node is made before a
// record leaves the old one, so a tree that can't grow stays as it was.
void SpecialFileWithBTree::SplitPath(const RecordPosition& position, unsigned level, std::int8_t kind) {
    RecordBufferArray& array = pending->Level(level);
    const std::uint32_t added = NodeAfter(position.node, kind, level);
    NodeBlock& node = GetNode(position.node);
    for (std::uint16_t index = position.index; index < node.GetRecordCount(); ++index) {
        array.PushBack(node.GetRecord(index), node.GetRecordSize(index));
    }
    while (node.GetRecordCount() > position.index) {
        node.RemoveRecordAt(static_cast<std::uint16_t>(node.GetRecordCount() - 1));
    }
    UpdateNodeLimits(position.node);
    AppendPending(GetNode(added), array);
    UpdateNodeLimits(added);
    AddToParent(added, level, kind);
    if (!array.empty()) DrainPending(level, added);
}

void SpecialFileWithBTree::DrainPending(unsigned level, std::uint32_t node) {
    RecordBufferArray& array = pending->Level(level);
    const std::int8_t kind = KindOfLevel(level);
    while (!array.empty()) {
        const std::size_t needed = array.NeededSize();
        const std::uint32_t next = GetNodeDescription(node).forward_link;
        const bool next_empty = next != 0 && GetNode(next).GetRecordCount() == 0;
        if (next == 0 || next_empty || GetNode(next).GetFreeSize() <= needed) {
            const std::uint32_t filled = next_empty ? next : NodeAfter(node, kind, level);
            AppendPending(GetNode(filled), array);
            if (GetNode(filled).GetRecordCount() == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            UpdateNodeLimits(filled);
            InsertIndexRecord(filled, level + 1);
            node = filled;
        } else {
            const KeyAndNodeIndexRecord old_key = CopyKeyOf(GetNode(next), 0);
            InsertPending(GetNode(next), 0, array);
            UpdateNodeLimits(next);
            UpdateParentKey(next, level, old_key);
            node = next;
        }
    }
}

void SpecialFileWithBTree::InsertIndexRecord(std::uint32_t child, unsigned level) {
    const KeyAndNodeIndexRecord key = CopyKeyOf(GetNode(child), 0);
    unsigned char number[4];
    Common::StoreBE32(number, child);
    InsertRecord(key.key, key.key_size, number, sizeof(number), level);
}

void SpecialFileWithBTree::MakeRootIndex(unsigned level) {
    if (GetNodeDescription(root()).height != level) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    InsertIndexRecord(root(), level + 1);
}

void SpecialFileWithBTree::GrowRoot() {
    const std::uint32_t old_root = root();
    const unsigned height = depth() + 1u;
    RecordBufferArray& array = pending->Level(height);
    if (!array.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const KeyAndNodeIndexRecord key = CopyKeyOf(GetNode(old_root), 0);
    const std::uint32_t grown = AllocateNode(kIndexNode, static_cast<std::uint8_t>(height), 0);
    unsigned char number[4];
    Common::StoreBE32(number, old_root);
    array.Append(key.key, key.key_size, number, sizeof(number));
    AppendPending(GetNode(grown), array);
    UpdateNodeLimits(grown);
    BTHeaderRec& header = ChangeHeader();
    header.rootNode_.set(grown);
    header.treeDepth_.set(static_cast<std::uint16_t>(height));
}

// The root can't have a node added behind it: it first gets a parent of
// its own, and is then an ordinary node of its level. (A root that
// overflows in the middle of its records grows the tree this way.)
std::uint32_t SpecialFileWithBTree::NodeAfter(std::uint32_t node, std::int8_t kind, unsigned level) {
    if (node == root()) {
        if (kind == kLeafNode) {
            MakeRootIndex(level);
        } else {
            GrowRoot();
        }
    }
    return AddNodeAfter(node, kind);
}

void SpecialFileWithBTree::AddToParent(std::uint32_t node, unsigned level, std::int8_t kind) {
    if (kind == kLeafNode) {
        if (GetNodeDescription(root()).kind == kLeafNode) MakeRootIndex(level);
        InsertIndexRecord(node, level + 1);
        return;
    }
    if (RootHasSibling()) {
        const std::uint32_t old_root = root();
        const unsigned height = depth() + 1u;
        const std::uint32_t grown = AllocateNode(kIndexNode, static_cast<std::uint8_t>(height), 0);
        CollectLevel(grown, old_root, pending->Level(height));
        UpdateNodeLimits(grown);
        BTHeaderRec& header = ChangeHeader();
        header.rootNode_.set(grown);
        header.treeDepth_.set(static_cast<std::uint16_t>(height));
        return;
    }
    if (depth() <= level) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    InsertIndexRecord(node, level + 1);
}

void SpecialFileWithBTree::CollectLevel(std::uint32_t new_root, std::uint32_t first_node, RecordBufferArray& array) {
    if (!array.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::uint32_t node = first_node;
    for (std::uint32_t steps = 0; node != 0; ++steps) {
        if (steps >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const KeyAndNodeIndexRecord key = CopyKeyOf(GetNode(node), 0);
        unsigned char number[4];
        Common::StoreBE32(number, node);
        array.Append(key.key, key.key_size, number, sizeof(number));
        node = GetNodeDescription(node).forward_link;
    }
    AppendPending(GetNode(new_root), array);
    if (!array.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

void SpecialFileWithBTree::PlaceRecords(std::uint32_t node, std::uint16_t index, unsigned level) {
    NodeBlock& block = GetNode(node);
    if (index < block.GetRecordCount()) {
        InsertPending(block, index, pending->Level(level));
    } else {
        AppendPending(block, pending->Level(level));
    }
}

void SpecialFileWithBTree::UpdateParentKey(std::uint32_t node, unsigned level, const KeyAndNodeIndexRecord& old_key) {
    MarkDirty();
    for (unsigned parent_level = level + 1; parent_level <= depth(); ++parent_level) {
        const RecordPosition found = FindPosition(old_key.key, old_key.key_size, parent_level);
        if (!found.IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        {
            NodeBlock& parent = GetNode(found.node);
            if (found.index >= parent.GetRecordCount() || parent.GetChild(found.index) != node) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            }
            parent.RemoveRecordAt(found.index);
        }
        RecordBufferArray& array = pending->Level(parent_level);
        if (!array.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const KeyAndNodeIndexRecord key = CopyKeyOf(GetNode(node), 0);
        unsigned char number[4];
        Common::StoreBE32(number, node);
        array.Append(key.key, key.key_size, number, sizeof(number));
        PlaceRecords(found.node, found.index, parent_level);
        UpdateNodeLimits(found.node);
        if (!array.empty()) DrainPending(parent_level, found.node);
        // Only a first record changes its node's own first key.
        if (found.index != 0) break;
        node = found.node;
    }
}

}  // namespace hfsplus
