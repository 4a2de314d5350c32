#include "ntfs/system_indexes.h"

#include "loader/common/byte_order.h"
#include "loader/common/error.h"
#include "loader/common/raise.h"
#include "ntfs/ntfs_driver.h"

namespace ntfs {

namespace {

// The head of each record of "$SDS", which is also the data of a "$SII"
// entry: hash, id, offset of the record in the stream, size with the head.
constexpr std::size_t kStoredHeadSize = 20;
constexpr std::size_t kStoredOffsetAt = 8;
constexpr std::size_t kStoredSizeAt = 16;
// Records are laid out in 256 KiB blocks: none is larger.
constexpr std::uint64_t kMaxStoredSize = 0x40000;

}  // namespace

SecureFile::SecureFile(NTFSDriver* driver) : record_(driver->record_cache->get(kSecureRecord)) {
    stream_ = record_.find(kData, u"$SDS");
    if (!stream_) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    ids_ = std::make_unique<SecurityIdIndex>(driver, record_);
    hashes_ = std::make_unique<SecurityHashIndex>(driver, record_);
    // The greatest id lies at the end of the rightmost leaf.
    IndexCursor cursor;
    if (ids_->last(cursor)) next_free_id_ = Common::LoadLE32(KeyOf(cursor.position.entry)) + 1;
}

SecureFile::~SecureFile() = default;

std::vector<unsigned char> SecureFile::descriptor(std::uint32_t id) {
    IndexCursor cursor;
    if (!ids_->find({id}, cursor)) Common::Raise(ERROR_TAG, Common::Failures::FILE_NOT_FOUND);
    const IndexEntryHeader* entry = cursor.position.entry;
    const std::size_t data_offset = entry->data_offset();
    if (entry->data_length() < kStoredHeadSize || data_offset < IndexEntryHeader::kKeyOffset ||
        data_offset > entry->length() || entry->length() - data_offset < kStoredHeadSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    const unsigned char* head = reinterpret_cast<const unsigned char*>(entry) + data_offset;
    const std::uint64_t offset = Common::LoadLE64(head + kStoredOffsetAt);
    const std::uint64_t size = Common::LoadLE32(head + kStoredSizeAt);
    const std::uint64_t stream_size = stream_->size();
    if (size < kStoredHeadSize || size > kMaxStoredSize || offset > stream_size || stream_size - offset < size) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    std::vector<unsigned char> descriptor(static_cast<std::size_t>(size - kStoredHeadSize));
    if (stream_->read(offset + kStoredHeadSize, descriptor.size(), descriptor.data()) != descriptor.size()) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return descriptor;
}

RecordRef ExtendFile(NTFSDriver* driver, const std::u16string& name) {
    RecordRef extend;
    try {
        extend = driver->record_cache->get(kExtendRecord);
    } catch (const Common::Error&) {
        // A volume whose $Extend can't be read still mounts, without the
        // indexes that live below it.
        return RecordRef();
    }
    DirectoryIndex directory(driver, extend);
    IndexCursor cursor;
    if (!directory.find(name, cursor)) return RecordRef();
    return driver->record_cache->get(RecordNumberOf(cursor.position.entry->indexed_file()));
}

ObjIdFile::ObjIdFile(NTFSDriver* driver) {
    RecordRef record = ExtendFile(driver, u"$ObjId");
    if (record) index_ = std::make_unique<ObjectIdIndex>(driver, record);
}

ObjIdFile::~ObjIdFile() = default;

ReparseFile::ReparseFile(NTFSDriver* driver) {
    RecordRef record = ExtendFile(driver, u"$Reparse");
    if (record) index_ = std::make_unique<ReparseIndex>(driver, record);
}

ReparseFile::~ReparseFile() = default;

}  // namespace ntfs
