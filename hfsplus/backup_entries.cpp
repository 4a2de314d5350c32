#include "hfsplus/backup_entries.h"

#include <string>
#include <vector>

#include "files/utf_conversion.h"
#include "hfsplus/attributes_file.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

// The record flag that says the attributes file holds some of the entry's.
constexpr std::uint16_t kHasAttributes = 0x0004;

bool HasAttributes(HFSPlusDriver& driver, const CatalogRecord& record) {
    const std::uint16_t flags = record.is_folder() ? record.folder().flags() : record.file().flags();
    return (flags & kHasAttributes) != 0 && driver.metadata().HasComponent(5) &&
           !driver.metadata().GetAttributesFile().IsEmpty();
}

bool HasResourceFork(const CatalogRecord& record) { return record.file().resourceFork().totalBlocks() != 0; }

// The whole data fork of a symbolic link, read through the same array as
// a file's data.
std::u16string ReadTarget(HFSPlusDriver& driver, const CatalogRecord& record) {
    HFSPlusBackupDataForkExtentsArray fork(driver, record.id(), record.file().dataFork(), false);
    if (fork.stream_type == 0) Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    std::vector<unsigned char> area(static_cast<std::size_t>(fork.chunk));
    std::string bytes;
    while (fork.stream_type != 0) {
        const std::uint64_t got = fork.read(area.data());
        if (got > area.size()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        bytes.append(reinterpret_cast<const char*>(area.data()), static_cast<std::size_t>(got));
        if (bytes.size() > HFSPlusBackupSymlinkObject::kMostTargetBytes) {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
        }
    }
    if (bytes.empty()) Common::Raise(ERROR_TAG, Common::Failures::FILE_CORRUPT);
    return utf8_to_utf16(bytes);
}

}  // namespace

HFSPlusFileBackupObject::HFSPlusFileBackupObject(HFSPlusDriver& driver, const CatalogRecord& record,
                                                 std::uint32_t option) {
    FileObjectAggregate& parts = allocator.aggregate;
    Append(kPieceAttributes, parts.attributes, 0u);
    if (record.file().dataFork().totalBlocks() != 0) {
        Append(kPieceDataFork, parts.data, driver, record, (option & kSkipData) != 0);
    }
    Append(kPiecePosixAttributes, parts.posix, PosixIdentityOf(record));
    Append(kPieceFileTimes, parts.times, record);
    Append(kPieceFinderInfo, parts.finder, record);
    if (HasResourceFork(record)) Append(kPieceResourceFork, parts.resource, driver, record);
    if (HasAttributes(driver, record)) Append(kPieceAttributesSequence, parts.sequence, driver, record.id());
    Settle();
}

HFSPlusDirectoryBackupObject::HFSPlusDirectoryBackupObject(HFSPlusDriver& driver, const CatalogRecord& record) {
    DirectoryObjectAggregate& parts = allocator.aggregate;
    Append(kPieceAttributes, parts.attributes, HFSPlusBackupAttributes::kFolder);
    Append(kPiecePosixAttributes, parts.posix, PosixIdentityOf(record));
    Append(kPieceFileTimes, parts.times, record);
    Append(kPieceFinderInfo, parts.finder, record);
    if (HasAttributes(driver, record)) Append(kPieceAttributesSequence, parts.sequence, driver, record.id());
    Settle();
}

HFSPlusBackupSymlinkObject::HFSPlusBackupSymlinkObject(HFSPlusDriver& driver, const CatalogRecord& record) {
    SymlinkObjectAggregate& parts = allocator.aggregate;
    const PosixIdentity identity = PosixIdentityOf(record);
    const std::u16string target = ReadTarget(driver, record);
    Append(kPieceAttributes, parts.attributes, 0u);
    Append(kPieceSymlinkTarget, parts.target, identity, target);
    Append(kPieceFileTimes, parts.times, record);
    Append(kPieceFinderInfo, parts.finder, record);
    if (HasResourceFork(record)) Append(kPieceResourceFork, parts.resource, driver, record);
    if (HasAttributes(driver, record)) Append(kPieceAttributesSequence, parts.sequence, driver, record.id());
    Settle();
}

HFSPlusBackupDeviceObject::HFSPlusBackupDeviceObject(HFSPlusDriver& driver, const CatalogRecord& record) {
    DeviceObjectAggregate& parts = allocator.aggregate;
    // The device number as the driver's listings split it.
    const std::uint32_t device = record.file().permissions().special();
    Append(kPieceAttributes, parts.attributes, 0u);
    Append(kPieceDeviceObjectContent, parts.device, PosixIdentityOf(record), device >> 16, device & 0xFFFF);
    Append(kPieceFileTimes, parts.times, record);
    Append(kPieceFinderInfo, parts.finder, record);
    if (HasResourceFork(record)) Append(kPieceResourceFork, parts.resource, driver, record);
    if (HasAttributes(driver, record)) Append(kPieceAttributesSequence, parts.sequence, driver, record.id());
    Settle();
}

}  // namespace hfsplus
