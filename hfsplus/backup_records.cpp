#include "hfsplus/backup_records.h"

#include <cstring>

#include "files/dir_object.h"
#include "hfsplus/catalog_record.h"
#include "hfsplus/journaled_object.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

constexpr std::uint32_t kPosixSize = 20;
constexpr std::uint32_t kDeviceSize = 28;
constexpr std::uint32_t kSymlinkHead = 24;  // the Posix record, the u16 size and the closing 0

void Put16(std::vector<unsigned char>& out, std::uint16_t value) {
    for (int i = 0; i < 2; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}
void Put32(std::vector<unsigned char>& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}
void Put64(std::vector<unsigned char>& out, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

std::vector<unsigned char> PosixRecord(std::uint32_t length, const PosixIdentity& identity) {
    std::vector<unsigned char> out;
    Put32(out, length);
    Put32(out, identity.kind);
    Put32(out, identity.owner);
    Put32(out, identity.group);
    Put32(out, identity.mode);
    return out;
}

std::uint32_t KindOfFileType(std::uint16_t type) {
    switch (type) {
        case kModeRegular: return KIND_FILE;
        case kModeSymlink: return KIND_SYMLINK;
        case kModeCharacter: return KIND_CHARACTER_DEVICE;
        case kModeBlock: return KIND_BLOCK_DEVICE;
        case kModeSocket: return KIND_SOCKET;
        case kModeFifo: return KIND_FIFO;
        default: Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
}

std::vector<unsigned char> TimesRecord(const CatalogRecord& record) {
    if (!record.is_folder() && !record.is_file()) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    const std::uint32_t modified = record.is_folder() ? record.folder().contentModDate() : record.file().contentModDate();
    const std::uint32_t created = record.is_folder() ? record.folder().createDate() : record.file().createDate();
    std::vector<unsigned char> out;
    Put64(out, static_cast<std::uint64_t>(MillisecondsFromMacTime(modified)));
    Put64(out, static_cast<std::uint64_t>(MillisecondsFromMacTime(created)));
    return out;
}

std::vector<unsigned char> SymlinkRecord(const PosixIdentity& identity, const std::u16string& target) {
    if (target.empty() || target.size() > HFSPlusBackupSymlinkTarget::kMostCharacters) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
    const auto bytes = static_cast<std::uint32_t>(2 * target.size());
    std::vector<unsigned char> out = PosixRecord(kSymlinkHead + bytes, identity);
    Put16(out, static_cast<std::uint16_t>(bytes));
    for (char16_t unit : target) Put16(out, static_cast<std::uint16_t>(unit));
    Put16(out, 0);
    return out;
}

std::vector<unsigned char> ExtendedAttributeHead(const std::string& name, std::uint64_t value_size) {
    if (name.size() > HFSPlusBackupPosixExtendedAttributes::kMostNameBytes) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
    std::vector<unsigned char> out;
    Put16(out, static_cast<std::uint16_t>(name.size()));
    Put64(out, value_size);
    if (name.empty()) return out;
    out.insert(out.end(), name.begin(), name.end());
    out.push_back(0);
    return out;
}

std::vector<unsigned char> FinderInfoRecord(const CatalogRecord& record) {
    // Folder and file records both hold their 32 bytes of Finder
    // information there; a record too short for them fits no object.
    if ((!record.is_folder() && !record.is_file()) ||
        record.size < HFSPlusBackupFinderInfoContent::kOffset + HFSPlusBackupFinderInfoContent::kSize) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
    const unsigned char* start = record.bytes + HFSPlusBackupFinderInfoContent::kOffset;
    return std::vector<unsigned char>(start, start + HFSPlusBackupFinderInfoContent::kSize);
}

}  // namespace

HFSPlusBackupBytes::HFSPlusBackupBytes(std::uint32_t type, std::vector<unsigned char> record)
    : bytes(std::move(record)) {
    stream_type = bytes.empty() ? 0 : type;
    chunk = bytes.size();
}

std::uint64_t HFSPlusBackupBytes::read(void* area) {
    if (stream_type == 0) return 0;
    std::memcpy(area, bytes.data(), bytes.size());
    stream_type = 0;
    chunk = 0;
    return bytes.size();
}

PosixIdentity PosixIdentityOf(const CatalogRecord& record) {
    const std::uint16_t type = record.mode_type();
    std::uint32_t kind;
    if (record.is_folder()) {
        if (type != kModeDirectory) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
        kind = KIND_DIRECTORY;
    } else if (record.is_file()) {
        kind = KindOfFileType(type);
    } else {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
    const BSDInfo& bsd = record.is_folder() ? record.folder().permissions() : record.file().permissions();
    return {kind, bsd.ownerID(), bsd.groupID(), bsd.fileMode()};
}

HFSPlusBackupAttributes::HFSPlusBackupAttributes(std::uint32_t attributes)
    : HFSPlusBackupBytes(kStreamAttributes, [attributes] {
          std::vector<unsigned char> out;
          Put32(out, attributes);
          return out;
      }()) {}

HFSPlusBackupFileTimes::HFSPlusBackupFileTimes(const CatalogRecord& record)
    : HFSPlusBackupBytes(kStreamTimes, TimesRecord(record)) {}

HFSPlusBackupPosixAttributes::HFSPlusBackupPosixAttributes(const PosixIdentity& identity)
    : HFSPlusBackupBytes(kStreamPosix, PosixRecord(kPosixSize, identity)) {}

HFSPlusBackupDeviceObjectContent::HFSPlusBackupDeviceObjectContent(const PosixIdentity& identity,
                                                                   std::uint32_t major, std::uint32_t minor)
    : HFSPlusBackupBytes(kStreamPosix, [&] {
          std::vector<unsigned char> out = PosixRecord(kDeviceSize, identity);
          Put32(out, major);
          Put32(out, minor);
          return out;
      }()) {}

HFSPlusBackupSymlinkTarget::HFSPlusBackupSymlinkTarget(const PosixIdentity& identity, const std::u16string& target)
    : HFSPlusBackupBytes(kStreamPosix, SymlinkRecord(identity, target)) {}

HFSPlusBackupPosixExtendedAttributes::HFSPlusBackupPosixExtendedAttributes(const std::string& name,
                                                                           std::uint64_t value_size)
    : HFSPlusBackupBytes(kStreamExtendedAttributes, ExtendedAttributeHead(name, value_size)) {}

HFSPlusBackupFinderInfoContent::HFSPlusBackupFinderInfoContent(const CatalogRecord& record)
    : HFSPlusBackupBytes(kStreamExtendedAttributes, FinderInfoRecord(record)) {}

HFSPlusBackupInlineAttributeDataStream::HFSPlusBackupInlineAttributeDataStream(std::vector<unsigned char> value)
    : HFSPlusBackupBytes(kStreamExtendedAttributes, std::move(value)) {}

}  // namespace hfsplus
