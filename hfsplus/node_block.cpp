#include "hfsplus/node_block.h"

#include <cstring>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"

namespace hfsplus {

NodeBlock::~NodeBlock() = default;

void NodeBlock::Bind(unsigned char* buffer) {
    Unbind();
    std::memset(buffer, 0, node_size);
    data = buffer;
}

void NodeBlock::Unbind() {
    if (data != nullptr) std::memset(data, 0, node_size);
    data = nullptr;
    loaded = 0;
}

std::uint16_t NodeBlock::Offset(std::uint16_t slot) const {
    return Common::LoadBE16(data + node_size - 2 * (static_cast<std::size_t>(slot) + 1));
}

void NodeBlock::CheckLayout(std::size_t max_key_size) const {
    const BTNodeDescriptor& descriptor = GetDescriptor();
    const std::int8_t kind = descriptor.kind();
    if (kind < kLeafNode || kind > kMapNode) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::size_t count = descriptor.numRecords();
    // The offset table holds one entry per record and the free-space offset.
    const std::size_t table = 2 * (count + 1);
    if (kDescriptorSize + table > node_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    if (Offset(0) < kDescriptorSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    for (std::size_t slot = 0; slot < count; ++slot) {
        if (Offset(static_cast<std::uint16_t>(slot)) >= Offset(static_cast<std::uint16_t>(slot + 1))) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
    if (Offset(static_cast<std::uint16_t>(count)) > node_size - table) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (kind != kLeafNode && kind != kIndexNode) return;
    for (std::uint16_t index = 0; index < count; ++index) {
        const std::size_t key_size = GetKeySize(index);
        if (key_size > max_key_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        const std::size_t data_offset = DataOffset(index);
        if (kind == kIndexNode && data_offset + 4 > GetRecordSize(index)) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
}

const BTNodeDescriptor& NodeBlock::GetDescriptor() const {
    if (data == nullptr || loaded == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    return *reinterpret_cast<const BTNodeDescriptor*>(data);
}

const unsigned char* NodeBlock::GetRecord(std::uint16_t index) const {
    if (index >= GetRecordCount()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    return data + Offset(index);
}

std::uint16_t NodeBlock::GetRecordSize(std::uint16_t index) const {
    if (index >= GetRecordCount()) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    const std::uint16_t start = Offset(index);
    const std::uint16_t end = Offset(static_cast<std::uint16_t>(index + 1));
    if (end <= start) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return static_cast<std::uint16_t>(end - start);
}

std::uint16_t NodeBlock::GetFreeSize() const {
    const std::size_t count = GetRecordCount();
    const std::size_t used = static_cast<std::size_t>(Offset(static_cast<std::uint16_t>(count))) + 2 + 2 * count;
    if (used > node_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return static_cast<std::uint16_t>(node_size - used);
}

NodeBlockDescription& NodeBlock::GetDescription() const {
    if (!description) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return *description;
}

std::size_t NodeBlock::GetKeySize(std::uint16_t index) const {
    const std::size_t record_size = GetRecordSize(index);
    if (record_size < 2) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const std::size_t key_size = static_cast<std::size_t>(Common::LoadBE16(GetRecord(index))) + 2;
    if (key_size > record_size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return key_size;
}

std::size_t NodeBlock::DataOffset(std::uint16_t index) const {
    const std::size_t key_size = GetKeySize(index);
    const std::size_t offset = key_size + (key_size & 1);
    if (offset > GetRecordSize(index)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return offset;
}

const unsigned char* NodeBlock::GetRecordData(std::uint16_t index, std::size_t& size) const {
    const std::size_t offset = DataOffset(index);
    size = GetRecordSize(index) - offset;
    return GetRecord(index) + offset;
}

std::uint32_t NodeBlock::GetChild(std::uint16_t index) const {
    std::size_t size = 0;
    const unsigned char* child = GetRecordData(index, size);
    if (size < 4) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return Common::LoadBE32(child);
}

void NodeBlock::SetOffset(std::uint16_t slot, std::uint16_t value) {
    Common::StoreBE16(data + node_size - 2 * (static_cast<std::size_t>(slot) + 1), value);
}

void NodeBlock::SetRecordCount(std::uint16_t count) { Common::StoreBE16(data + 10, count); }

void NodeBlock::Initialise(std::int8_t kind, std::uint8_t height, std::uint32_t backward_link) {
    if (data == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    std::memset(data, 0, node_size);
    Common::StoreBE32(data + 4, backward_link);
    data[8] = static_cast<unsigned char>(kind);
    data[9] = height;
    SetOffset(0, kDescriptorSize);
    loaded = 1;
    dirty = 1;
}

void NodeBlock::Clear() {
    if (data == nullptr) Common::Raise(ERROR_TAG, Common::Failures::FILE_UNSUPPORTED);
    std::memset(data, 0, node_size);
    dirty = 1;
}

void NodeBlock::SetForwardLink(std::uint32_t link) {
    GetDescriptor();
    Common::StoreBE32(data, link);
    dirty = 1;
}

void NodeBlock::SetBackwardLink(std::uint32_t link) {
    GetDescriptor();
    Common::StoreBE32(data + 4, link);
    dirty = 1;
}

void NodeBlock::InsertRecordAt(std::uint16_t index, const unsigned char* bytes, std::uint16_t size) {
    const std::uint16_t count = GetRecordCount();
    if (index > count || (size & 1) != 0 || size == 0 || !HasRoomFor(size)) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const std::uint16_t at = Offset(index);
    const std::uint16_t end = Offset(count);
    std::memmove(data + at + size, data + at, end - at);
    std::memcpy(data + at, bytes, size);
    for (std::uint16_t slot = static_cast<std::uint16_t>(count + 1); slot > index; --slot) {
        SetOffset(slot, static_cast<std::uint16_t>(Offset(static_cast<std::uint16_t>(slot - 1)) + size));
    }
    SetRecordCount(static_cast<std::uint16_t>(count + 1));
    dirty = 1;
}

void NodeBlock::RemoveRecordAt(std::uint16_t index) {
    const std::uint16_t count = GetRecordCount();
    const std::uint16_t size = GetRecordSize(index);
    const std::uint16_t at = Offset(index);
    const std::uint16_t end = Offset(count);
    std::memmove(data + at, data + at + size, end - at - size);
    std::memset(data + end - size, 0, size);
    for (std::uint16_t slot = index; slot < count; ++slot) {
        SetOffset(slot, static_cast<std::uint16_t>(Offset(static_cast<std::uint16_t>(slot + 1)) - size));
    }
    SetOffset(count, 0);
    SetRecordCount(static_cast<std::uint16_t>(count - 1));
    dirty = 1;
}

unsigned char* NodeBlock::RecordBytes(std::uint16_t index) {
    GetRecord(index);
    return data + Offset(index);
}

}  // namespace hfsplus
