#include "ntfs/backup_common.h"

#include <algorithm>
#include <cstring>

#include "files/dir_object.h"
#include "loader/common/byte_order.h"
#include "loader/common/raise.h"
#include "ntfs/file_security.h"
#include "ntfs/mft.h"
#include "ntfs/ntfs_driver.h"
#include "ntfs/ntfs_iterator.h"

namespace ntfs {

namespace {

// File attribute bits that a symbolic link doesn't carry over: hidden, system.
constexpr std::uint32_t kLinkDroppedBits = 0x2 | 0x4;
// The first version with object ids.
constexpr std::uint16_t kObjectIdVersion = 0x0300;
// An object id value: the id, then the birth volume id, birth object id and domain id.
constexpr std::uint32_t kObjectIdSize = 16;
constexpr std::uint32_t kObjectIdValueSize = 64;

std::vector<unsigned char> Joined(std::vector<unsigned char> head, const unsigned char* tail, std::size_t size) {
    head.insert(head.end(), tail, tail + size);
    return head;
}

bool IsDirectoryRecord(const RecordRef& record) {
    RecordBuffer* buffer = record->recordBuffer();
    return buffer != nullptr && (buffer->header()->flags() & kRecordIsDirectory) != 0;
}

// The tag of the record's reparse point; 0 without one.
std::uint32_t ReparseTagOf(const RecordRef& record) {
    AttributeRef reparse = record.find(kReparsePoint);
    unsigned char tag[4] = {};
    if (!reparse || reparse->size() < sizeof(tag)) return 0;
    if (reparse->read(0, sizeof(tag), tag) != sizeof(tag)) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return Common::LoadLE32(tag);
}

}  // namespace

StandardInformation ReadStandardInformation(const RecordRef& record) {
    AttributeRef standard = record.find(kStandardInformation);
    if (!standard || standard->size() < StandardInformation::kShortSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    StandardInformation value{};
    if (standard->read(0, StandardInformation::kShortSize, &value) != StandardInformation::kShortSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    }
    return value;
}

bool TakesRawForm(const BackupSource& source) {
    if (source.has(kBackupPlain)) return false;
    return (ReadStandardInformation(source.record).file_attributes() & kAttributeEncrypted) != 0;
}

BackupAttributes::BackupAttributes(const BackupSource& source) {
    std::uint32_t value = ReadStandardInformation(source.record).file_attributes();
    const bool directory = IsDirectoryRecord(source.record);
    if (directory) value = (value | kAttributeDirectoryBit) & ~kAttributeIndexed;
    if (source.has(kBackupPlain)) value &= ~kAttributeEncrypted;
    const std::uint32_t as_listed = directory ? value | kAttributeIndexed : value;
    if (KindOfEntry(as_listed, ReparseTagOf(source.record)) == KIND_SYMLINK) value &= ~kLinkDroppedBits;
    std::vector<unsigned char> bytes(4);
    Common::StoreLE32(bytes.data(), value);
    offer(kPieceAttributes, std::move(bytes));
}

BackupFileTimes::BackupFileTimes(const BackupSource& source) {
    const StandardInformation value = ReadStandardInformation(source.record);
    std::vector<unsigned char> bytes(16);
    Common::StoreLE64(&bytes[0], static_cast<std::uint64_t>(NTFSDriver::FrameworkTime(value.last_data_change_time())));
    Common::StoreLE64(&bytes[8], static_cast<std::uint64_t>(NTFSDriver::FrameworkTime(value.creation_time())));
    offer(kPieceTimes, std::move(bytes));
}

BackupSecurity::BackupSecurity(const BackupSource& source) : source_(source) {
    stream_type = source.has(kBackupWithoutSecurity) ? 0 : kPieceWin32Stream;
}

std::uint64_t BackupSecurity::read(void* area) {
    if (stream_type == 0) return 0;
    if (piece_.empty()) {
        const std::vector<unsigned char> descriptor = ReadSecurity(source_.driver, source_.record);
        piece_ = Joined(Win32StreamHeader(kStreamSecurity, kStreamContainsSecurity, descriptor.size(), u""),
                        descriptor.data(), descriptor.size());
        chunk = piece_.size();
        return 0;
    }
    std::memcpy(area, piece_.data(), piece_.size());
    stream_type = 0;
    return piece_.size();
}

BackupReparse::BackupReparse(const BackupSource& source) {
    AttributeRef reparse = source.record.find(kReparsePoint);
    if (!reparse) return;
    const std::uint64_t size = reparse->size();
    if (size > ReparsePointHeader::kMaximumSize) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    std::vector<unsigned char> value(static_cast<std::size_t>(size));
    if (reparse->read(0, size, value.data()) != size) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    offer(kPieceWin32Stream, Joined(Win32StreamHeader(kStreamReparse, 0, size, u""), value.data(), value.size()));
}

// A bare 16-byte id (or a full value with nothing behind the id) is
// completed as the volume would give it: born on this volume under its own
// id, in no domain.
BackupObjectIds::BackupObjectIds(const BackupSource& source) {
    if (source.driver->version < kObjectIdVersion) return;
    AttributeRef attribute = source.record.find(kObjectId);
    if (!attribute || attribute->size() < kObjectIdSize) return;
    unsigned char value[kObjectIdValueSize] = {};
    const std::uint64_t wanted = std::min<std::uint64_t>(attribute->size(), kObjectIdValueSize);
    const std::uint64_t got = attribute->read(0, wanted, value);
    if (got != wanted) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    const bool bare =
        std::all_of(value + kObjectIdSize, value + kObjectIdValueSize, [](unsigned char b) { return b == 0; });
    if (got == kObjectIdSize || (got == kObjectIdValueSize && bare)) {
        std::memcpy(value + kObjectIdSize, source.driver->volume_object_id, kObjectIdSize);
        std::memcpy(value + 2 * kObjectIdSize, value, kObjectIdSize);
        std::memset(value + 3 * kObjectIdSize, 0, kObjectIdSize);
    }
    offer(kPieceWin32Stream,
          Joined(Win32StreamHeader(kStreamObjectId, 0, kObjectIdValueSize, u""), value, kObjectIdValueSize));
}

}  // namespace ntfs
