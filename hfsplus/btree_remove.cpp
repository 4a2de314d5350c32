// Deletion: a record leaves its leaf; a node left without records is
// freed and its index record goes too, level by level; a node whose
// records fit behind those of the node before it on its level moves them
// there and goes the same way; and a root left with a single child gives
// way to it. Parent keys follow a node whose first record went.
#include "hfsplus/btree.h"
#include "hfsplus/btree_key.h"
#include "hfsplus/btree_map.h"
#include "hfsplus/btree_pending.h"
#include "hfsplus/node_block.h"
#include "hfsplus/nodes_cache.h"
#include "loader/common/raise.h"

namespace hfsplus {

void SpecialFileWithBTree::DeleteRecord(const unsigned char* key, std::size_t key_size, const RecordPosition& position) {
    CheckWritable();
    if (leaf_records() == 0 || !position.IsValid() || position.node >= total) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const unsigned depth_before = depth();
    KeyAndNodeIndexRecord removed;
    bool empty = false;
    {
        NodeBlock& node = GetLeafAt(position);
        // The parents are found by this key: it must be the record's.
        if (CompareKeys(key, key_size, node.GetKey(position.index), node.GetKeySize(position.index)) != 0) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
        }
        removed = CopyKeyOf(node, position.index);
        node.RemoveRecordAt(position.index);
        empty = node.GetRecordCount() == 0;
    }
    ChangeHeader().leafRecords_.set(leaf_records() - 1);
    if (!empty) {
        UpdateNodeLimits(position.node);
        if (position.index == 0) UpdateParentKey(position.node, 1, removed);
        MergeIntoPrevious(position.node, 1);
    } else {
        FreeNode(position.node);
        RemoveIndexRecordsAbove(removed.key, removed.key_size, position.node, 2, depth_before);
    }
    ShrinkRoot();
}

void SpecialFileWithBTree::RemoveIndexRecordsAbove(const unsigned char* key, std::size_t key_size,
                                                   std::uint32_t freed, unsigned from_level, unsigned depth_before) {
    for (unsigned level = from_level; level <= depth_before && level <= depth(); ++level) {
        const RecordPosition found = FindPosition(key, key_size, level);
        if (!found.IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        KeyAndNodeIndexRecord old_key;
        bool empty = false;
        {
            NodeBlock& parent = GetNode(found.node);
            if (found.index >= parent.GetRecordCount() || parent.GetChild(found.index) != freed) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            }
            old_key = CopyKeyOf(parent, 0);
            parent.RemoveRecordAt(found.index);
            empty = parent.GetRecordCount() == 0;
        }
        if (!empty) {
            UpdateNodeLimits(found.node);
            if (found.index == 0) UpdateParentKey(found.node, level, old_key);
            MergeIntoPrevious(found.node, level);
            return;
        }
        FreeNode(found.node);
        freed = found.node;
    }
}

// Nodes only part full after deletions would keep the tree as wide and as
// deep as it ever was; so a node whose records fit into the free space of
// the node before it on its level gives them up and goes.
void SpecialFileWithBTree::MergeIntoPrevious(std::uint32_t number, unsigned level) {
    const std::uint32_t previous = GetNodeDescription(number).backward_link;
    if (previous == 0 || number == root()) return;
    if (previous >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::size_t room = GetNode(previous).GetFreeSize();
    RecordBufferArray& array = pending->Level(level);
    if (!array.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    KeyAndNodeIndexRecord first;
    {
        NodeBlock& node = GetNode(number);
        const std::size_t used = static_cast<std::size_t>(node_bytes) - 16 - node.GetFreeSize();
        if (node.GetRecordCount() == 0 || used > room) return;
        first = CopyKeyOf(node, 0);
        for (std::uint16_t index = 0; index < node.GetRecordCount(); ++index) {
            array.PushBack(node.GetRecord(index), node.GetRecordSize(index));
        }
        while (node.GetRecordCount() > 0) node.RemoveRecordAt(static_cast<std::uint16_t>(node.GetRecordCount() - 1));
    }
    AppendPending(GetNode(previous), array);
    if (!array.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    UpdateNodeLimits(previous);
    UpdateNodeLimits(number);
    FreeNode(number);
    RemoveIndexRecordsAbove(first.key, first.key_size, number, level + 1, depth());
}

void SpecialFileWithBTree::ShrinkRoot() {
    while (depth() > 1) {
        const std::uint32_t old_root = root();
        std::uint32_t child = 0;
        {
            NodeBlock& node = GetNode(old_root);
            if (node.GetRecordCount() != 1) return;
            child = node.GetChild(0);
            if (child == 0 || child >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            node.RemoveRecordAt(0);
        }
        const NodeBlockDescription& below = GetNodeDescription(child);
        if (below.height + 1u != depth() || below.forward_link != 0 || below.backward_link != 0) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        BTHeaderRec& header = ChangeHeader();
        header.rootNode_.set(child);
        header.treeDepth_.set(static_cast<std::uint16_t>(depth() - 1));
        FreeNode(old_root);
    }
}

void SpecialFileWithBTree::SetLink(std::uint32_t node, bool forward, std::uint32_t value) {
    NodeBlock& block = GetNode(node);
    if (forward) {
        block.SetForwardLink(value);
    } else {
        block.SetBackwardLink(value);
    }
    NodeBlockDescription& description = block.GetDescription();
    (forward ? description.forward_link : description.backward_link) = value;
}

void SpecialFileWithBTree::UnlinkNode(NodeBlock& node, NodeBlockDescription& description) {
    const std::uint32_t number = node.number;
    const std::uint32_t previous = node.GetBackwardLink();
    const std::uint32_t next = node.GetForwardLink();
    const bool leaf = description.kind == kLeafNode;
    if (previous >= total || next >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (previous != 0 && GetNode(previous).GetForwardLink() != number) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (next != 0 && GetNode(next).GetBackwardLink() != number) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (leaf) {
        const std::uint32_t first = first_leaf();
        const std::uint32_t last = last_leaf();
        if ((previous == 0 && next == 0 && first != last) || (previous == 0 && next != 0 && first != number) ||
            (next == 0 && previous != 0 && last != number)) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        BTHeaderRec& header = ChangeHeader();
        if (previous == 0) header.firstLeafNode_.set(next);
        if (next == 0) header.lastLeafNode_.set(previous);
    }
    if (previous != 0) SetLink(previous, true, next);
    if (next != 0) SetLink(next, false, previous);
}

void SpecialFileWithBTree::FreeNode(std::uint32_t number) {
    CheckWritable();
    if (number == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    NodeBlock* node = &GetNode(number);
    if (node->GetRecordCount() != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (!map->IsAllocated(number)) return;
    NodeBlockDescription description = node->GetDescription();
    if (number == root()) {
        if (first_leaf() != last_leaf()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        BTHeaderRec& header = ChangeHeader();
        if (description.kind == kIndexNode) {
            header.rootNode_.set(first_leaf());
            header.treeDepth_.set(first_leaf() == 0 ? 0 : 1);
        } else if (description.kind == kLeafNode) {
            header.rootNode_.set(0);
            header.treeDepth_.set(0);
            header.leafRecords_.set(0);
            header.firstLeafNode_.set(0);
            header.lastLeafNode_.set(0);
        } else {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
    UnlinkNode(*node, description);
    ChangeHeader().freeNodes_.set(free_nodes() + 1);
    map->SetAllocated(number, false);
    map_dirty = 1;
    node = &GetNode(number);
    node->Clear();
    node->description.reset();
}

}  // namespace hfsplus
