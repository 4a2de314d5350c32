#include "hfsplus/btree.h"

#include <cstring>

#include "hfsplus/btree_map.h"
#include "hfsplus/btree_pending.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/node_block.h"
#include "hfsplus/nodes_cache.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint16_t kHeaderRecord = 0;
constexpr std::uint16_t kHeaderNodeRecords = 3;

bool IsNodeSize(std::uint32_t size) { return size >= 512 && size <= 32768 && (size & (size - 1)) == 0; }

// Drops a node's loaded mark again when its bytes fail their check, so
// that nobody uses them and the next request reads them anew.
class LoadMark {
public:
    explicit LoadMark(NodeBlock& node) : node(node) { node.loaded = 1; }
    ~LoadMark() {
        if (!kept) node.loaded = 0;
    }
    void Keep() { kept = true; }

private:
    NodeBlock& node;
    bool kept = false;
};

void CopyLimit(KeyAndNodeIndexRecord& limit, const NodeBlock& node, std::uint16_t index, bool index_node) {
    limit.key_size = node.GetKeySize(index);
    if (limit.key_size > KeyAndNodeIndexRecord::kKeyCapacity) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::memcpy(limit.key, node.GetKey(index), limit.key_size);
    limit.child = index_node ? node.GetChild(index) : KeyAndNodeIndexRecord::kNoChild;
}

}  // namespace

SpecialFileWithBTree::SpecialFileWithBTree(HFSPlusDriver* driver, std::uint32_t fork_id, std::uint16_t node_size,
                                           std::uint32_t max_key_size, std::uint32_t max_data_size)
    : SpecialFile(driver, fork_id), max_key_bytes(max_key_size), max_data_bytes(max_data_size) {
    placed_start = fork().extent(0).startBlock();
    placed_blocks = fork().totalBlocks();
    if (fork().totalBlocks() == 0) return;
    if (!IsNodeSize(node_size)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    header_buffer = std::make_unique<AlignedBuffer>(node_size);
    header_node = std::make_unique<NodeBlock>(0, node_size);
    header_node->Bind(header_buffer->data());
    node_bytes = node_size;
    total = 1;
    ReadNode(0, *header_node);
    CheckHeaderRecord();
    total = HeaderRecord().totalNodes();
    cache = std::make_unique<NodesCache>(NodesCache::kCapacity, node_size, total);
    // Each slot holds the two largest parts of a record, each rounded up to even.
    pending = std::make_unique<RecordBufferTree>(max_key_bytes + (max_key_bytes & 1) + max_data_bytes +
                                                 (max_data_bytes & 1));
}

SpecialFileWithBTree::~SpecialFileWithBTree() = default;

std::uint32_t SpecialFileWithBTree::GetAllocationUnit() const {
    const std::uint32_t block = driver->block_size();
    const std::uint32_t unit = block == 0 ? 0 : node_bytes / block;
    return unit == 0 ? 1 : unit;
}

const BTHeaderRec& SpecialFileWithBTree::HeaderRecord() const {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    return *reinterpret_cast<const BTHeaderRec*>(header_node->GetRecord(kHeaderRecord));
}

void SpecialFileWithBTree::CheckHeaderRecord() {
    const NodeBlock& header = *header_node;
    if (header.GetDescriptor().kind() != kHeaderNode || header.GetRecordCount() != kHeaderNodeRecords ||
        header.GetRecordSize(kHeaderRecord) < sizeof(BTHeaderRec)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const BTHeaderRec& record = HeaderRecord();
    const std::uint32_t nodes = record.totalNodes();
    // Node objects are made lazily, but the count still bounds every link
    // and must lie inside the fork that holds the tree.
    if (record.nodeSize() != node_bytes || nodes == 0 ||
        static_cast<std::uint64_t>(nodes) * node_bytes > fork().logicalSize()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const bool no_root = record.rootNode() == 0;
    if (record.rootNode() >= nodes || record.firstLeafNode() >= nodes || record.lastLeafNode() >= nodes ||
        record.treeDepth() > 0xFF || record.treeDepth() >= nodes || no_root != (record.treeDepth() == 0)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

std::uint16_t SpecialFileWithBTree::depth() const { return IsEmpty() ? 0 : HeaderRecord().treeDepth(); }
std::uint32_t SpecialFileWithBTree::root() const { return IsEmpty() ? 0 : HeaderRecord().rootNode(); }
std::uint32_t SpecialFileWithBTree::leaf_records() const { return IsEmpty() ? 0 : HeaderRecord().leafRecords(); }

void SpecialFileWithBTree::LoadMap() {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    auto loaded = std::make_unique<BTreeMap>();
    loaded->Load(*this);
    map = std::move(loaded);
}

const BTreeMap& SpecialFileWithBTree::GetMap() const {
    if (!map) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    return *map;
}

NodeBlock& SpecialFileWithBTree::GetNode(std::uint32_t number) {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (number >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (number == 0) return *header_node;
    // A miss in a full cache writes the dirty nodes first, so that the
    // eviction never meets one; they reach the disk with the object's flush.
    NodeBlock& node = BindNode(number);
    if (!node.IsBound()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (!node.loaded) ReadNode(number, node);
    return node;
}

void SpecialFileWithBTree::ReadNode(std::uint32_t number, NodeBlock& node) {
    std::uint64_t got = 0;
    Read(node.data, static_cast<std::uint64_t>(number) * node_bytes, node_bytes, got);
    if (got < node_bytes) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ);
    LoadMark mark(node);
    node.CheckLayout(max_key_bytes);
    disk_counts.emplace(number, node.GetRecordCount());
    const BTNodeDescriptor& descriptor = node.GetDescriptor();
    if (!node.description) {
        auto description = std::make_unique<NodeBlockDescription>();
        description->node = number;
        description->forward_link = descriptor.fLink();
        description->backward_link = descriptor.bLink();
        description->kind = descriptor.kind();
        description->height = descriptor.height();
        description->record_count = descriptor.numRecords();
        node.description = std::move(description);
    }
    if (!node.description->has_limits) FillNodeLimits(node);
    mark.Keep();
}

void SpecialFileWithBTree::FillNodeLimits(NodeBlock& node) {
    NodeBlockDescription& description = node.GetDescription();
    const std::uint16_t count = node.GetRecordCount();
    const bool index_node = description.kind == kIndexNode;
    if (count == 0 || (!index_node && description.kind != kLeafNode)) return;
    CopyLimit(description.limits.first, node, 0, index_node);
    CopyLimit(description.limits.last, node, static_cast<std::uint16_t>(count - 1), index_node);
    description.has_limits = true;
}

const NodeBlockDescription& SpecialFileWithBTree::GetNodeDescription(std::uint32_t number) {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (number >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const NodeBlock* known = number == 0 ? header_node.get() : cache->Find(number);
    if (known != nullptr && known->description) return *known->description;
    return GetNode(number).GetDescription();
}

void SpecialFileWithBTree::CheckLevel(const NodeBlockDescription& description, unsigned level) {
    const std::int8_t kind = level == 1 ? kLeafNode : kIndexNode;
    if (description.kind != kind || description.height != level) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
}

int SpecialFileWithBTree::CompareWithLimit(const unsigned char* key, std::size_t key_size,
                                           const KeyAndNodeIndexRecord& limit) const {
    return CompareKeys(key, key_size, limit.key, limit.key_size);
}

RecordPosition SpecialFileWithBTree::FindPosition(const unsigned char* key, std::size_t key_size, unsigned level) {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (level < 1) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (key_size < 2 || key_size < static_cast<std::size_t>(Common::LoadBE16(key)) + 2) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
    }
    if (level > depth() || root() == 0) return RecordPosition();
    return WalkRight(Descend(key, key_size, level), key, key_size, level);
}

std::uint32_t SpecialFileWithBTree::Descend(const unsigned char* key, std::size_t key_size, unsigned level) {
    std::uint32_t node = root();
    // One level per step, the height checked at each: a depth that lies
    // ends in FILE_CORRUPT, never in a longer path.
    for (unsigned height = depth(); height > level; --height) {
        NodeBlock& block = GetNode(node);
        CheckLevel(block.GetDescription(), height);
        node = ChooseChild(block, key, key_size);
    }
    return node;
}

std::uint32_t SpecialFileWithBTree::ChooseChild(NodeBlock& node, const unsigned char* key, std::size_t key_size) {
    const std::uint16_t count = node.GetRecordCount();
    if (count == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    std::uint16_t chosen = static_cast<std::uint16_t>(count - 1);
    for (std::uint16_t index = 0; index < count; ++index) {
        const int order = CompareKeys(key, key_size, node.GetKey(index), node.GetKeySize(index));
        if (order > 0) continue;
        chosen = (order == 0 || index == 0) ? index : static_cast<std::uint16_t>(index - 1);
        break;
    }
    const std::uint32_t child = node.GetChild(chosen);
    if (child == 0 || child >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return child;
}

RecordPosition SpecialFileWithBTree::WalkRight(std::uint32_t node, const unsigned char* key, std::size_t key_size,
                                               unsigned level) {
    // A sound level has fewer nodes than the tree; more steps mean a loop.
    for (std::uint32_t steps = 0; steps < total; ++steps) {
        const NodeBlockDescription& description = GetNodeDescription(node);
        CheckLevel(description, level);
        const std::uint16_t count = description.record_count;
        if (count > 0) {
            if (CompareWithLimit(key, key_size, description.limits.first) <= 0) return {node, 0};
            const int last = CompareWithLimit(key, key_size, description.limits.last);
            if (last == 0) return {node, static_cast<std::uint16_t>(count - 1)};
            if (last < 0) {
                NodeBlock& block = GetNode(node);
                for (std::uint16_t index = 1; index < count; ++index) {
                    if (CompareKeys(key, key_size, block.GetKey(index), block.GetKeySize(index)) <= 0) {
                        return {node, index};
                    }
                }
                return {node, count};
            }
        }
        const std::uint32_t next = description.forward_link;
        if (next == 0) return {node, count};
        if (next >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        node = next;
    }
    Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

bool SpecialFileWithBTree::FollowsInChain(const KeyAndNodeIndexRecord& previous,
                                          const KeyAndNodeIndexRecord& next) const {
    return CompareKeys(next.key, next.key_size, previous.key, previous.key_size) > 0;
}

NodeBlock& SpecialFileWithBTree::GetLeafAt(const RecordPosition& position) {
    if (!position.IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    NodeBlock& node = GetNode(position.node);
    if (node.GetDescription().kind != kLeafNode) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (position.index >= node.GetRecordCount()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return node;
}

RecordPosition SpecialFileWithBTree::GetNextLeafPosition(const RecordPosition& position) {
    if (!position.IsValid()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const NodeBlockDescription& current = GetNodeDescription(position.node);
    if (current.kind != kLeafNode) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (position.index >= current.record_count) return RecordPosition();
    if (position.index + 1 < current.record_count) {
        return {position.node, static_cast<std::uint16_t>(position.index + 1)};
    }
    const std::uint32_t next = current.forward_link;
    if (next == 0) return RecordPosition();
    if (next >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const NodeBlockDescription& following = GetNodeDescription(next);
    if (following.kind != kLeafNode || following.record_count == 0 || following.backward_link != position.node ||
        !FollowsInChain(current.limits.last, following.limits.first)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return {next, 0};
}

}  // namespace hfsplus
