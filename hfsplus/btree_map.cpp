#include "hfsplus/btree_map.h"

#include <algorithm>
#include <cstring>

#include "hfsplus/btree.h"
#include "hfsplus/node_block.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint16_t kHeaderMapRecord = 2;

}  // namespace

void BTreeMap::AddRecord(const unsigned char* record, std::size_t size, std::uint32_t node) {
    bytes.insert(bytes.end(), record, record + size);
    nodes.push_back(node);
    record_sizes.push_back(static_cast<std::uint32_t>(size));
    capacity_bytes += size;
}

void BTreeMap::Load(SpecialFileWithBTree& tree) {
    bytes.clear();
    nodes.clear();
    record_sizes.clear();
    capacity_bytes = 0;
    is_ready = false;
    NodeBlock& header = tree.GetNode(0);
    AddRecord(header.GetRecord(kHeaderMapRecord), header.GetRecordSize(kHeaderMapRecord), 0);
    std::uint32_t next = header.GetForwardLink();
    // Every map node of the chain is checked and kept, even past the bits
    // the tree needs: a map node that joins later goes behind the last one.
    // A chain longer than the tree's nodes has gone round in a circle.
    for (std::uint32_t steps = 0; next != 0; ++steps) {
        if (steps >= tree.total_nodes()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        NodeBlock& node = tree.GetNode(next);
        if (node.GetDescriptor().kind() != kMapNode || node.GetRecordCount() < 1) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        AddRecord(node.GetRecord(0), node.GetRecordSize(0), next);
        next = node.GetForwardLink();
    }
    if (bit_count() < tree.total_nodes()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    Rebuild(tree.total_nodes());
    is_ready = true;
}

void BTreeMap::Rebuild(std::uint32_t total) {
    // The bits of the map so far, then those of records not yet in it.
    std::vector<unsigned char> source;
    if (bitmap) source.assign(bitmap->data(), bitmap->data() + bitmap->byte_count());
    if (source.size() < bytes.size()) source.insert(source.end(), bytes.begin() + source.size(), bytes.end());
    // Nodes past what the records hold still get a bit: a tree that has
    // grown takes its next map node from among them.
    source.resize(std::max<std::size_t>(source.size(), (std::uint64_t(total) + 7) / 8), 0);
    bitmap = std::make_unique<Bitmap>(source.data(), source.size(), total);
    bytes.clear();
}

bool BTreeMap::IsAllocated(std::uint32_t node) const {
    if (!bitmap || node >= bitmap->bit_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return bitmap->GetBit(node);
}

std::uint32_t BTreeMap::FindFirstFree() const {
    if (!bitmap) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return bitmap->FindFirstClear();
}

void BTreeMap::SetAllocated(std::uint32_t node, bool used) {
    if (!bitmap || node >= bitmap->bit_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (bitmap->GetBit(node) != used) bitmap->SetBit(node, used);
}

void BTreeMap::AddMapNode(std::uint32_t node, std::uint32_t record_size) {
    if (!bitmap) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::uint32_t total = bitmap->bit_count();
    nodes.push_back(node);
    record_sizes.push_back(record_size);
    capacity_bytes += record_size;
    Rebuild(total);
}

void BTreeMap::Resize(std::uint32_t total) {
    if (!bitmap || total < bitmap->bit_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    Rebuild(total);
}

void BTreeMap::CopyPart(std::size_t part, unsigned char* record) const {
    if (!bitmap || part >= nodes.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::size_t start = 0;
    for (std::size_t i = 0; i < part; ++i) start += record_sizes[i];
    const std::size_t size = record_sizes[part];
    std::memset(record, 0, size);
    if (start < bitmap->byte_count()) {
        std::memcpy(record, bitmap->data() + start, std::min<std::size_t>(size, bitmap->byte_count() - start));
    }
}

}  // namespace hfsplus
