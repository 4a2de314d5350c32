#include "hfsplus/attributes_file.h"

#include <algorithm>
#include <cstring>

#include "hfsplus/allocation_file.h"
#include "hfsplus/extents_overflow.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "hfsplus/journaled_object.h"
#include "hfsplus/volume_header.h"
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

std::uint32_t AttributesFile::GetInlineSize(std::uint32_t file_id, const HFSPlusString& name) {
    std::size_t size = sizeof(AttrInlineData);
    const unsigned char* data = GetRecordOf(file_id, 0, name, kAttrInlineData, size);
    if (data == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return reinterpret_cast<const AttrInlineData*>(data)->attrSize();
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

void AttributesFile::CheckChange() const {
    CheckValid();
    if (driver->read_only != 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_READ_ONLY);
}

void AttributesFile::FreeList(ExtentsDescriptorArray& list) {
    if (list.extent_count() != 0) driver->metadata().GetAllocationFile().FreeExtents(list);
    list.Clear();
}

// Records go one at a time, each found again from the file's first key: a
// deletion may merge nodes, and a fresh search never follows a stale link.
// A fork record (start block 0) sorts before its extents records, and the
// next name's records behind them, so the list of one fork is complete
// when the next fork or inline record comes.
void AttributesFile::DeleteAttributes(std::uint32_t file_id) {
    CheckChange();
    ExtentsDescriptorArray list;
    std::uint64_t total = 0;
    std::uint32_t previous = 0;
    const std::uint32_t most = leaf_records();
    for (std::uint32_t deleted = 0;; ++deleted) {
        const RecordPosition position = FindFirst(file_id, 0, HFSPlusString());
        if (!position.IsValid()) break;
        if (deleted >= most) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        NodeBlock& node = GetLeafAt(position);
        const std::size_t key_size = node.GetKeySize(position.index);
        const KeyView key = ViewKey(node.GetKey(position.index), key_size);
        std::size_t size = 0;
        const unsigned char* data = node.GetRecordData(position.index, size);
        const std::uint32_t type = size >= 4 ? Common::LoadBE32(data) : 0;
        if (type == kAttrInlineData) {
            FreeList(list);
        } else if (type == kAttrForkData && size >= sizeof(AttrForkData)) {
            FreeList(list);
            const ForkData& fork = reinterpret_cast<const AttrForkData*>(data)->theFork();
            total = fork.totalBlocks();
            list.Append(&fork.extent(0), kExtentsPerRecord);
        } else if (type == kAttrExtents && size >= sizeof(AttrExtents)) {
            if (previous == 0 || previous == kAttrInlineData || key.start_block != list.block_count()) {
                Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
            }
            list.Append(&reinterpret_cast<const AttrExtents*>(data)->extent(0), kExtentsPerRecord);
        } else {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
        if (total < list.block_count()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        std::vector<unsigned char> key_copy(node.GetKey(position.index), node.GetKey(position.index) + key_size);
        DeleteRecord(key_copy.data(), key_copy.size(), position);
        previous = type;
    }
    if (previous == 0) return;  // nothing was there
    FreeList(list);
    MarkDirty();
}

void AttributesFile::InsertAttribute(std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name,
                                     const unsigned char* record, std::size_t size) {
    unsigned char key[kMaxKeySize];
    const std::size_t key_size = BuildKey(key, file_id, start_block, name);
    InsertRecord(key, key_size, record, size, 1);
    MarkDirty();
}

void AttributesFile::AddForkAttribute(std::uint32_t file_id, const HFSPlusString& name, const ForkData& fork) {
    CheckChange();
    AttrForkData record{};
    record.recordType_.set(kAttrForkData);
    record.theFork_ = fork;
    InsertAttribute(file_id, 0, name, reinterpret_cast<const unsigned char*>(&record), sizeof(record));
}

void AttributesFile::AddExtentsAttribute(std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name,
                                         const ExtentDescriptor (&extents)[kExtentsPerRecord]) {
    CheckChange();
    AttrExtents record{};
    record.recordType_.set(kAttrExtents);
    std::copy(extents, extents + kExtentsPerRecord, record.extents_);
    InsertAttribute(file_id, start_block, name, reinterpret_cast<const unsigned char*>(&record), sizeof(record));
}

void AttributesFile::AddInlineAttribute(std::uint32_t file_id, const HFSPlusString& name, const void* data,
                                        std::uint32_t size) {
    CheckChange();
    if (data == nullptr || size == 0 || size > kInlineLimit) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    record_buffer.assign(sizeof(AttrInlineData) + size, 0);
    auto& head = *reinterpret_cast<AttrInlineData*>(record_buffer.data());
    head.recordType_.set(kAttrInlineData);
    head.attrSize_.set(size);
    std::memcpy(record_buffer.data() + sizeof(AttrInlineData), data, size);
    InsertAttribute(file_id, 0, name, record_buffer.data(), record_buffer.size());
}

void AttributesFile::FlushTree() {
    if (dirty != 0 && driver->read_only == 0) volume_header->header().modifyDate_.set(MacLocalTimeNow());
    SpecialFileWithBTree::FlushTree();
}

}  // namespace hfsplus
