// Nodes of the writing half: allocation from the map (a new map node when
// the tree has outgrown its map records), a node put behind another on its
// level, the header record's changes, and the write-back of nodes, the
// header node and the map parts through the object.
#include <set>
#include <vector>

#include "hfsplus/allocation_file.h"
#include "hfsplus/btree.h"
#include "hfsplus/btree_map.h"
#include "hfsplus/btree_pending.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/node_block.h"
#include "hfsplus/nodes_cache.h"
#include "hfsplus/volume_header.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint16_t kHeaderMapRecord = 2;
// A map node's record: the node less its descriptor, two offsets and two
// bytes kept free, as the format's makers lay them out.
constexpr std::uint32_t kMapNodeOverhead = 20;

}  // namespace

void SpecialFileWithBTree::CheckWritable() const {
    if (IsEmpty() || !map) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
}

BTHeaderRec& SpecialFileWithBTree::ChangeHeader() {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    header_node->SetDirty(true);
    MarkDirty();
    return *reinterpret_cast<BTHeaderRec*>(header_node->RecordBytes(0));
}

std::uint32_t SpecialFileWithBTree::free_nodes() const { return IsEmpty() ? 0 : HeaderRecord().freeNodes(); }
std::uint32_t SpecialFileWithBTree::first_leaf() const { return IsEmpty() ? 0 : HeaderRecord().firstLeafNode(); }
std::uint32_t SpecialFileWithBTree::last_leaf() const { return IsEmpty() ? 0 : HeaderRecord().lastLeafNode(); }

std::uint8_t SpecialFileWithBTree::CleanBit() const {
    switch (fork_id) {
        case kExtentsFileId: return HFSPlusDriver::kExtentsClean;
        case kCatalogFileId: return HFSPlusDriver::kCatalogClean;
        case kAttributesFileId: return HFSPlusDriver::kAttributesClean;
        default: return 0;
    }
}

void SpecialFileWithBTree::MarkDirty() {
    dirty = 1;
    driver->open_status &= static_cast<std::uint8_t>(~CleanBit());
    volume_header->MarkDirty();
    // The catalog's and the attributes' growth may reach the overflow tree.
    if (fork_id != kExtentsFileId && driver->metadata().HasComponent(3)) {
        driver->metadata().GetExtentsOverflowFile().JournaledFileSystemObject::MarkDirty();
    }
}

void SpecialFileWithBTree::UpdateNodeLimits(std::uint32_t number) {
    NodeBlock& node = GetNode(number);
    const BTNodeDescriptor& descriptor = node.GetDescriptor();
    if (!node.description) node.description = std::make_unique<NodeBlockDescription>();
    NodeBlockDescription& description = *node.description;
    description.node = number;
    description.forward_link = descriptor.fLink();
    description.backward_link = descriptor.bLink();
    description.kind = descriptor.kind();
    description.height = descriptor.height();
    description.record_count = descriptor.numRecords();
    description.has_limits = false;
    FillNodeLimits(node);
    node.SetDirty(true);
    MarkDirty();
}

NodeBlock& SpecialFileWithBTree::BindNode(std::uint32_t number) {
    if (number == 0 || number >= total) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (!cache->Holds(number) && cache->full()) WriteCachedNodes();
    return cache->Acquire(number);
}

void SpecialFileWithBTree::WriteNode(std::uint32_t number, NodeBlock& node) {
    std::uint64_t written = 0;
    Write(node.data, static_cast<std::uint64_t>(number) * node_bytes, node_bytes, written);
    if (written < node_bytes) Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    node.SetDirty(false);
    unflushed.insert_or_assign(number, std::make_pair(FlushRank(number, node), node.GetRecordCount()));
}

void SpecialFileWithBTree::WriteCachedNodes() {
    for (std::uint8_t place = 0; place < cache->capacity(); ++place) {
        const std::uint32_t number = cache->entry_node(place);
        if (number == NodesCache::kFreeEntry) continue;
        NodeBlock* node = cache->Find(number);
        if (node != nullptr && node->IsBound() && node->IsDirty()) WriteNode(number, *node);
    }
}

void SpecialFileWithBTree::WriteMapParts() {
    for (std::size_t part = 1; part < map->part_count(); ++part) {
        const std::uint32_t number = map->map_nodes()[part];
        NodeBlock& node = GetNode(number);
        if (node.GetDescriptor().kind() != kMapNode || node.GetRecordCount() < 1) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        map->CopyPart(part, node.RecordBytes(0));
        WriteNode(number, node);
    }
}

// A cut in the middle of a flush leaves what reached the disk: the nodes
// go from the bottom up, and the header node last. An index record then
// never leads to a node whose records haven't arrived (a search sent to a
// node left of its record walks right to it; one sent past it finds
// nothing), and the header's counts and map bits never count a node that
// isn't written.
void SpecialFileWithBTree::FlushTree() {
    if (IsEmpty() || dirty == 0) return;
    if (driver->read_only != 0) {
        dirty = 0;
        return;
    }
    if (map_dirty != 0) {
        map->CopyPart(0, header_node->RecordBytes(kHeaderMapRecord));
        header_node->SetDirty(true);
        if (map->part_count() == 1) map_dirty = 0;
    }
    WriteCachedNodes();
    if (map_dirty != 0) WriteMapParts();
    map_dirty = 0;
    if (header_node->IsDirty()) WriteNode(0, *header_node);
    WriteGrownFork();
    std::set<unsigned> ranks;
    for (const auto& [number, noted] : unflushed) ranks.insert(noted.first);
    for (unsigned rank : ranks) {
        if (rank < kHeaderRank) FlushNodes(rank);
    }
    FlushNodes(kHeaderRank);
    FlushNodes(kFreedRank);
    fresh.clear();
    volume_header->header().modifyDate_.set(MacLocalTimeNow());
    volume_header->MarkDirty();
    Flush();
    dirty = 0;
    driver->open_status |= CleanBit();
}

// Leaves first, then each index level, then the other kinds (map nodes),
// the header node, and behind it the nodes freed: a merge empties a node
// only once the records it gave up stand in their new node. On each level
// the nodes allocated since the last flush go first: nothing on the disk
// leads to them yet, and the records a split moved into them are there
// before the node they left drops them. Then the nodes that hold fewer
// records than the disk has, then the rest: a record that a rename moves
// to another node leaves its old one first, so that a cut between the two
// leaves it missing, which the checker repairs, rather than twice with one
// catalog id, which it can't.
unsigned SpecialFileWithBTree::FlushRank(std::uint32_t number, const NodeBlock& node) const {
    if (number == 0) return kHeaderRank;
    if (map && !map->IsAllocated(number)) return kFreedRank;
    const std::int8_t kind = node.GetDescriptor().kind();
    const unsigned level = 3u * node.GetDescriptor().height();
    if ((kind != kLeafNode && kind != kIndexNode) || level == 0 || level >= kHeaderRank - 1) return kHeaderRank - 1;
    if (fresh.count(number) != 0) return level - 2;
    auto known = disk_counts.find(number);
    return known != disk_counts.end() && node.GetRecordCount() < known->second ? level - 1 : level;
}

// The sectors of the written nodes of one rank go to the disk, and
// nothing else: nodes written into the cache earlier, to free their
// buffers, wait for their own rank.
void SpecialFileWithBTree::FlushNodes(unsigned rank) {
    const std::uint64_t sector = driver->sector_size;
    std::set<SectorArea> areas;
    for (auto node = unflushed.begin(); node != unflushed.end();) {
        if (node->second.first != rank) {
            ++node;
            continue;
        }
        std::uint64_t position = static_cast<std::uint64_t>(node->first) * node_bytes;
        std::uint64_t rest = (position % sector + node_bytes + sector - 1) / sector;
        while (rest > 0) {
            const SectorArea area = Locate(position).KeepFirst(rest);
            if (area.IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            areas.insert(area);
            rest -= area.GetCount();
            position += area.GetCount() * sector - position % sector;
        }
        disk_counts.insert_or_assign(node->first, node->second.second);
        node = unflushed.erase(node);
    }
    driver->FlushAreas(areas);
}

// A file grown in place reaches the disk in the volume header, its new
// blocks marked in use, before any node: a cut then leaves a file longer
// than its tree, which a check takes, and never a node linked to one past
// the file's end, or a header node counting such nodes, which no mount
// takes. A file moved whole keeps the other order: all its nodes stand in
// the new place before the volume header sends anyone there.
void SpecialFileWithBTree::WriteGrownFork() {
    const ForkData& now = fork();
    const bool moved = now.extent(0).startBlock() != placed_start;
    if (now.totalBlocks() != placed_blocks && !moved) {
        if (allocation != nullptr) allocation->Flush();
        volume_header->FlushHeader();
    }
    placed_start = now.extent(0).startBlock();
    placed_blocks = now.totalBlocks();
}

void SpecialFileWithBTree::AddMapNode(std::uint32_t previous) {
    const std::uint32_t added = AllocateNode(kMapNode, 0, previous);
    {
        NodeBlock& node = GetNode(added);
        const std::vector<unsigned char> zeros(node_bytes - kMapNodeOverhead, 0);
        node.InsertRecordAt(0, zeros.data(), static_cast<std::uint16_t>(zeros.size()));
    }
    UpdateNodeLimits(added);
    map->AddMapNode(added, node_bytes - kMapNodeOverhead);
}

std::uint32_t SpecialFileWithBTree::AllocateNode(std::int8_t kind, std::uint8_t height, std::uint32_t previous) {
    CheckWritable();
    if (kind == kHeaderNode || kind < kLeafNode || kind > kMapNode) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    }
    if (free_nodes() < 2) ExtendTree();
    // Node numbers past the map records' bits can't be kept on the disk:
    // the map grows by a node first.
    while (kind != kMapNode && map->bit_count() < total) {
        if (map->map_nodes().empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NO_MEMORY);
        AddMapNode(map->map_nodes().back());
    }
    const std::uint32_t number = map->FindFirstFree();
    if (number == BTreeMap::kNone || number == 0 || number >= total || free_nodes() == 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    fresh.insert(number);
    BTHeaderRec& header = ChangeHeader();
    if (kind == kLeafNode) {
        if (header.rootNode() == 0) {
            header.treeDepth_.set(1);
            header.rootNode_.set(number);
            header.firstLeafNode_.set(number);
        }
        header.lastLeafNode_.set(number);
    }
    header.freeNodes_.set(header.freeNodes() - 1);
    map->SetAllocated(number, true);
    map_dirty = 1;
    BindNode(number).Initialise(kind, height, previous);
    UpdateNodeLimits(number);
    // A map node always follows another map node or the header node.
    if (kind == kMapNode) {
        header_node->SetDirty(true);
        if (previous == 0) {
            header_node->SetForwardLink(number);
            header_node->GetDescription().forward_link = number;
        } else {
            SetLink(previous, true, number);
        }
    } else if (previous != 0) {
        SetLink(previous, true, number);
    }
    return number;
}

std::uint32_t SpecialFileWithBTree::AddNodeAfter(std::uint32_t node, std::int8_t kind) {
    CheckWritable();
    if (node == 0 || node >= total || !map->IsAllocated(node) || kind < kLeafNode || kind > kMapNode ||
        root() == 0 || node == root()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const NodeBlockDescription& description = GetNodeDescription(node);
    if (description.kind != kind) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint8_t height = description.height;
    const std::uint32_t next = description.forward_link;
    if (next >= total || (next != 0 && GetNode(next).GetBackwardLink() != node)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::uint32_t last = last_leaf();
    const std::uint32_t added = AllocateNode(kind, height, 0);
    SetLink(added, false, node);
    SetLink(added, true, next);
    SetLink(node, true, added);
    if (next != 0) SetLink(next, false, added);
    if (kind == kLeafNode && next != 0) ChangeHeader().lastLeafNode_.set(last);
    return added;
}

}  // namespace hfsplus
