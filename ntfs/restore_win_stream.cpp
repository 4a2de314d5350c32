#include "ntfs/restore_win_stream.h"

#include <algorithm>
#include <array>

#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/file_record.h"
#include "ntfs/junction.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_file.h"
#include "ntfs/system_indexes.h"

namespace ntfs {

namespace {

constexpr std::uint32_t kDescriptorHeadSize = 20;
constexpr std::uint8_t kDescriptorRevision = 1;
constexpr std::uint16_t kSelfRelative = 0x8000;
constexpr std::uint32_t kSidHeadSize = 8;
constexpr std::uint32_t kMostSubAuthorities = 15;
constexpr std::uint32_t kAclHeadSize = 8;
constexpr std::uint32_t kReparseHeadSize = 8;  // tag, data length, reserved
constexpr std::uint32_t kReparseGuidSize = 16;
constexpr std::uint32_t kMicrosoftTag = 0x80000000;

// A SID at `offset` of a descriptor of `size` bytes lies inside it.
bool SidFits(const std::vector<unsigned char>& bytes, std::uint32_t offset) {
    if (offset == 0) return true;
    if (offset < kDescriptorHeadSize || std::uint64_t(offset) + kSidHeadSize > bytes.size()) return false;
    const std::uint32_t count = bytes[offset + 1];
    return bytes[offset] == 1 && count <= kMostSubAuthorities &&
           std::uint64_t(offset) + kSidHeadSize + 4 * count <= bytes.size();
}

// An ACL at `offset` holds at least its head, and its size lies inside.
bool AclFits(const std::vector<unsigned char>& bytes, std::uint32_t offset) {
    if (offset == 0) return true;
    if (offset < kDescriptorHeadSize || std::uint64_t(offset) + kAclHeadSize > bytes.size()) return false;
    const std::uint16_t size = Common::LoadLE16(bytes.data() + offset + 2);
    return size >= kAclHeadSize && std::uint64_t(offset) + size <= bytes.size();
}

bool SoundDescriptor(const std::vector<unsigned char>& bytes) {
    if (bytes.size() < kDescriptorHeadSize || bytes[0] != kDescriptorRevision) return false;
    if ((Common::LoadLE16(bytes.data() + 2) & kSelfRelative) == 0) return false;
    const unsigned char* head = bytes.data();
    return SidFits(bytes, Common::LoadLE32(head + 4)) && SidFits(bytes, Common::LoadLE32(head + 8)) &&
           AclFits(bytes, Common::LoadLE32(head + 12)) && AclFits(bytes, Common::LoadLE32(head + 16));
}

// Reparse data whose own length says its size: a Microsoft tag has no GUID.
bool SoundReparseData(const std::vector<unsigned char>& bytes) {
    if (bytes.size() < kReparseHeadSize) return false;
    const std::uint32_t tag = Common::LoadLE32(bytes.data());
    const std::uint64_t head = kReparseHeadSize + ((tag & kMicrosoftTag) != 0 ? 0 : kReparseGuidSize);
    return head + Common::LoadLE16(bytes.data() + 4) == bytes.size();
}

ReparseIndex* ReparseIndexOf(NTFSDriver* driver) {
    return driver->reparse_file ? driver->reparse_file->index() : nullptr;
}

// Takes what `bytes` still lacks of `wanted` from `data`.
std::uint64_t Append(std::vector<unsigned char>& bytes, std::uint64_t wanted, const unsigned char* data,
                     std::uint64_t size) {
    const std::uint64_t take = std::min<std::uint64_t>(wanted - bytes.size(), size);
    bytes.insert(bytes.end(), data, data + take);
    return take;
}

}  // namespace

RestorePlainData::RestorePlainData(const FileObjectHolder& holder, const std::u16string& name)
    : RestoreWinStream(holder), name_(name) {
    // A directory's contents are its index: it has no unnamed data.
    if (directory && name.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

RestorePlainData::RestorePlainData(const FileObjectHolder& holder, const std::u16string& name, std::uint64_t size)
    : RestorePlainData(holder, name) {
    AttributeRef existing = object.record.find(kData, name_);
    const std::uint64_t reused = existing ? existing->allocatedSize() : 0;
    checkRoom(size > reused ? size - reused : 0);
    existing.reset();
    open();
    // The stream becomes what the backup holds, nothing of before behind it.
    if (stream_->size() != 0 && stream_->resize(0, true) != 0) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
}

void RestorePlainData::open() {
    stream_ = object.record.find(kData, name_);
    if (stream_) return;
    stream_ = AttributeRef(object.record.get(), object.record->createAttribute(kData, name_, false));
}

void RestorePlainData::checkRoom(std::uint64_t grow) const {
    std::uint64_t total = 0, free = 0, available = 0;
    object.driver->space(total, free, available);
    // A value of up to a record's size may stay in its record.
    if (grow > free && grow - free > object.driver->record_size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    }
}

std::uint64_t RestorePlainData::write(const unsigned char* data, std::uint64_t size) {
    const std::uint64_t written = stream_->write(position_, size, data);
    position_ += written;
    return written;
}

void RestorePlainData::abandon() {
    if (!stream_ || name_.empty()) {
        stream_.reset();
        return;
    }
    // Erasing wants the last hold: a second one is taken before this one goes.
    BaseFileRecord& file = *object.record;
    Attribute* again = file.findAttribute(kData, name_);
    stream_.reset();
    if (again != nullptr) file.dropAttribute(again, true);
}

RestoreSparseData::RestoreSparseData(const FileObjectHolder& holder, const std::u16string& name, std::uint64_t size)
    : RestorePlainData(holder, name), length_(size < sizeof(head_) ? 0 : size - sizeof(head_)) {
    if (size < sizeof(head_)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
}

std::uint64_t RestoreSparseData::write(const unsigned char* data, std::uint64_t size) {
    std::uint64_t taken = 0;
    if (gathered_ < sizeof(head_)) {
        taken = std::min<std::uint64_t>(sizeof(head_) - gathered_, size);
        std::copy(data, data + taken, head_ + gathered_);
        gathered_ += static_cast<std::uint32_t>(taken);
        if (gathered_ < sizeof(head_)) return taken;
        placeAt(Common::LoadLE64(head_));
    }
    if (taken == size) return taken;
    return taken + RestorePlainData::write(data + taken, size - taken);
}

void RestoreSparseData::placeAt(std::uint64_t position) {
    if (position > kMostStreamSize - length_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    AttributeRef existing = object.record.find(kData, name_);
    const std::uint64_t size = existing ? existing->size() : 0;
    const std::uint64_t end = position + length_;
    if (end > size) checkRoom(end - size);
    existing.reset();
    open();
    // Without sparse runs of its own making, the driver writes the hole
    // before the range as zeros; a range of no bytes so sets the size.
    if (position > size && stream_->write(size, position - size, nullptr) != position - size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_DISK_FULL);
    }
    position_ = position;
}

RestoreSecurity::RestoreSecurity(const FileObjectHolder& holder, std::uint64_t size)
    : RestoreWinStream(holder), size_(size) {
    if (size < kDescriptorHeadSize || size > kMostSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    bytes_.reserve(static_cast<std::size_t>(size));
}

std::uint64_t RestoreSecurity::write(const unsigned char* data, std::uint64_t size) {
    return Append(bytes_, size_, data, size);
}

void RestoreSecurity::finish() {
    if (!SoundDescriptor(bytes_)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    object.setSecurity(bytes_.data(), static_cast<std::uint32_t>(bytes_.size()));
}

RestoreReparse::RestoreReparse(const FileObjectHolder& holder, std::uint64_t size)
    : RestoreWinStream(holder), size_(size) {
    if (size < kReparseHeadSize || size > ReparsePointHeader::kMaximumSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    if (ReparseIndexOf(object.driver) == nullptr) object.driver->refuse_change(ERROR_TAG);
    bytes_.reserve(static_cast<std::size_t>(size));
}

std::uint64_t RestoreReparse::write(const unsigned char* data, std::uint64_t size) {
    return Append(bytes_, size_, data, size);
}

void RestoreReparse::finish() {
    if (!SoundReparseData(bytes_)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    RemoveReparseEntry(object);
    const RecordRef& record = object.record;
    AttributeRef point = record.find(kReparsePoint);
    if (!point) point = AttributeRef(record.get(), record->createAttribute(kReparsePoint, std::u16string(), true));
    const auto size = static_cast<std::uint64_t>(bytes_.size());
    if (point->resize(size, true) != size || point->write(0, size, bytes_.data()) != size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_WRITE);
    }
    point.reset();
    const std::uint32_t attributes = object.attributes() | kAttributeReparse;
    const std::uint32_t tag = Common::LoadLE32(bytes_.data());
    MetadataUpdate update;
    update.attributes = &attributes;
    update.reparse_tag = &tag;
    object.updateMetadata(update, false);
    IndexCursor cursor;
    ReparseIndexOf(object.driver)->insert(ReparseIndexEntry(tag, record->reference()), cursor);
}

void RemoveReparseEntry(NTFSFileObject& object) {
    ReparseIndex* index = ReparseIndexOf(object.driver);
    AttributeRef point = object.record.find(kReparsePoint);
    if (index == nullptr || !point || point->size() < 4) return;
    unsigned char tag[4];
    if (point->read(0, sizeof(tag), tag) != sizeof(tag)) return;
    const std::uint64_t reference = object.record->reference();
    const ReparseIndex::Wanted wanted{Common::LoadLE32(tag), static_cast<std::uint32_t>(reference),
                                      static_cast<std::uint32_t>(reference >> 32)};
    IndexCursor cursor;
    if (index->find(wanted, cursor)) index->remove(cursor);
}

}  // namespace ntfs
