#include "hfsplus/attributes_file.h"

#include "hfsplus/extents_overflow.h"
#include "hfsplus/node_block.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kForkId = kAttributesFileId;
constexpr std::uint32_t kMaxKeySize = sizeof(AttrKey);
constexpr std::uint32_t kMaxDataSize = sizeof(AttrForkData);
constexpr std::size_t kKeyHeadSize = 12;  // keyLength, pad, fileID, startBlock, attrNameLen, less keyLength itself
constexpr std::size_t kNameOffset = 14;

// An attribute key whose bytes were checked.
struct KeyView {
    std::uint32_t file_id;
    std::uint32_t start_block;
    const unsigned char* name;
    std::size_t length;
};

KeyView ViewKey(const unsigned char* key, std::size_t size) {
    const std::size_t key_length = size >= 2 ? Common::LoadBE16(key) : 0;
    if (size < kNameOffset || key_length < kKeyHeadSize || key_length + 2 > size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const AttrKey& view = *reinterpret_cast<const AttrKey*>(key);
    const std::size_t length = view.attrNameLen();
    if (length > kMaxAttrNameLength || kKeyHeadSize + 2 * length > key_length) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return {view.fileID(), view.startBlock(), key + kNameOffset, length};
}

template <typename T>
int Order(T a, T b) {
    return a == b ? 0 : (a < b ? -1 : 1);
}

std::u16string HostName(const KeyView& key) { return HFSPlusString::FromStored(key.name, key.length).characters; }

}  // namespace

AttributesFile::AttributesFile(HFSPlusDriver* driver, std::uint16_t node_size, ExtentsOverflowFile& extents)
    : SpecialFileWithBTree(driver, kForkId, node_size, kMaxKeySize, kMaxDataSize) {
    if (IsEmpty()) return;
    extents.CompleteExtents(*this);
    LoadMap();
}

AttributesFile::~AttributesFile() = default;

void AttributesFile::CheckValid() const {
    if (IsEmpty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

std::size_t AttributesFile::BuildKey(unsigned char* out, std::uint32_t file_id, std::uint32_t start_block,
                                     const HFSPlusString& name) {
    if (name.length() > kMaxAttrNameLength) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    Common::StoreBE16(out, static_cast<std::uint16_t>(kKeyHeadSize + 2 * name.length()));
    Common::StoreBE16(out + 2, 0);
    Common::StoreBE32(out + 4, file_id);
    Common::StoreBE32(out + 8, start_block);
    return kKeyHeadSize + name.ToDisk(out + kKeyHeadSize);
}

int AttributesFile::CompareKeys(const unsigned char* a, std::size_t a_size, const unsigned char* b,
                                std::size_t b_size) const {
    const KeyView x = ViewKey(a, a_size);
    const KeyView y = ViewKey(b, b_size);
    if (int order = Order(x.file_id, y.file_id)) return order;
    if (int order = CompareBinaryStored(x.name, x.length, y.name, y.length)) return order;
    return Order(x.start_block, y.start_block);
}

RecordPosition AttributesFile::FindFirst(std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name) {
    CheckValid();
    unsigned char key[kMaxKeySize];
    const std::size_t key_size = BuildKey(key, file_id, start_block, name);
    const RecordPosition position = FindPosition(key, key_size, 1);
    if (!position.IsValid()) return position;
    NodeBlock& node = GetNode(position.node);
    if (position.index >= node.GetRecordCount() ||
        ViewKey(node.GetKey(position.index), node.GetKeySize(position.index)).file_id != file_id) {
        return RecordPosition();
    }
    return position;
}

void AttributesFile::ListAttributes(std::uint32_t file_id, std::vector<AttributeNameAndTypePair>& list) {
    list.clear();
    RecordPosition position = FindFirst(file_id, 0, HFSPlusString());
    // Leaf positions only move forward along a chain whose keys grow, and
    // no more often than the tree has records.
    for (std::uint32_t records = 0; position.IsValid(); ++records) {
        if (records > leaf_records()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        NodeBlock& node = GetLeafAt(position);
        const KeyView key = ViewKey(node.GetKey(position.index), node.GetKeySize(position.index));
        if (key.file_id != file_id) return;
        std::size_t size = 0;
        const unsigned char* data = node.GetRecordData(position.index, size);
        if (size < 4) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        std::u16string name = HostName(key);
        if (list.empty() || list.back().name != name) list.push_back({Common::LoadBE32(data), std::move(name)});
        position = GetNextLeafPosition(position);
    }
}

const unsigned char* AttributesFile::GetRecordOf(std::uint32_t file_id, std::uint32_t start_block,
                                                 const HFSPlusString& name, std::uint32_t type, std::size_t& size) {
    const RecordPosition position = FindFirst(file_id, start_block, name);
    if (!position.IsValid()) return nullptr;
    NodeBlock& node = GetLeafAt(position);
    const KeyView key = ViewKey(node.GetKey(position.index), node.GetKeySize(position.index));
    if (key.start_block != start_block || HostName(key) != name.characters) return nullptr;
    std::size_t available = 0;
    const unsigned char* data = node.GetRecordData(position.index, available);
    if (available < size || available < 4 || Common::LoadBE32(data) != type) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    size = available;
    return data;
}

ForkData AttributesFile::GetForkData(std::uint32_t file_id, const HFSPlusString& name) {
    std::size_t size = sizeof(AttrForkData);
    const unsigned char* data = GetRecordOf(file_id, 0, name, kAttrForkData, size);
    if (data == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return reinterpret_cast<const AttrForkData*>(data)->theFork();
}

std::vector<unsigned char> AttributesFile::GetInlineData(std::uint32_t file_id, const HFSPlusString& name) {
    std::size_t size = sizeof(AttrInlineData);
    const unsigned char* data = GetRecordOf(file_id, 0, name, kAttrInlineData, size);
    if (data == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    const std::uint32_t length = reinterpret_cast<const AttrInlineData*>(data)->attrSize();
    if (length > kInlineLimit || sizeof(AttrInlineData) + length > size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const unsigned char* bytes = data + sizeof(AttrInlineData);
    return std::vector<unsigned char>(bytes, bytes + length);
}

void AttributesFile::GetForkExtents(std::uint32_t file_id, const HFSPlusString& name, ExtentsDescriptorArray& extents) {
    const ForkData fork = GetForkData(file_id, name);
    const std::uint32_t total_blocks = fork.totalBlocks();
    if (extents.block_count() == total_blocks) return;
    std::uint64_t own = 0;
    for (unsigned i = 0; i < kExtentsPerRecord; ++i) {
        if (!fork.extent(i).empty()) own += fork.extent(i).blockCount();
    }
    if (own != extents.block_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    // Each record must add blocks, so the walk ends within total_blocks steps.
    while (extents.block_count() < total_blocks) {
        const std::uint32_t before = extents.block_count();
        std::size_t size = sizeof(AttrExtents);
        const unsigned char* data = GetRecordOf(file_id, before, name, kAttrExtents, size);
        if (data == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        extents.Append(&reinterpret_cast<const AttrExtents*>(data)->extent(0), kExtentsPerRecord);
        if (extents.block_count() == before) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (extents.block_count() > total_blocks) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

}  // namespace hfsplus
