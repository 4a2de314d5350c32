#include "hfsplus/btree_map.h"

#include "hfsplus/btree.h"
#include "hfsplus/node_block.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint16_t kHeaderMapRecord = 2;

}  // namespace

void BTreeMap::AddRecord(const unsigned char* record, std::size_t size, std::uint32_t node) {
    bits.insert(bits.end(), record, record + size);
    nodes.push_back(node);
}

void BTreeMap::Load(SpecialFileWithBTree& tree) {
    bits.clear();
    nodes.clear();
    is_ready = false;
    covered_nodes = tree.total_nodes();
    NodeBlock& header = tree.GetNode(0);
    AddRecord(header.GetRecord(kHeaderMapRecord), header.GetRecordSize(kHeaderMapRecord), 0);
    std::uint32_t next = header.GetForwardLink();
    // Bits past the tree's total say nothing, so the chain is read only as
    // far as it covers the tree: memory stays at one bit a node, and a chain
    // that loops ends as soon as it has gone round the tree's worth.
    for (std::uint32_t steps = 0; next != 0 && bit_count() < tree.total_nodes(); ++steps) {
        if (steps >= tree.total_nodes()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        NodeBlock& node = tree.GetNode(next);
        if (node.GetDescriptor().kind() != kMapNode || node.GetRecordCount() < 1) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        AddRecord(node.GetRecord(0), node.GetRecordSize(0), next);
        next = node.GetForwardLink();
    }
    if (bit_count() < tree.total_nodes()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    is_ready = true;
}

bool BTreeMap::IsAllocated(std::uint32_t node) const {
    if (node >= covered_nodes || node / 8 >= bits.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return (bits[node / 8] & (0x80u >> (node % 8))) != 0;
}

std::uint32_t BTreeMap::FindFirstFree() const {
    for (std::uint32_t byte = 0; byte < bits.size(); ++byte) {
        if (bits[byte] == 0xFF) continue;
        for (std::uint32_t bit = 0; bit < 8; ++bit) {
            const std::uint32_t node = byte * 8 + bit;
            if (node >= covered_nodes) return 0xFFFFFFFFu;
            if ((bits[byte] & (0x80u >> bit)) == 0) return node;
        }
    }
    return 0xFFFFFFFFu;
}

}  // namespace hfsplus
