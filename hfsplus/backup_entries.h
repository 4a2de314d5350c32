#pragma once
// The backup objects of whole catalog entries: a file, a folder, a
// symbolic link and a device (FIFO and socket alike), each an ordered list
// of the pieces that its kind of entry has. Every piece is made, and every
// refusal raised, when the object is made: the reads only copy.
#include <cstdint>
#include <optional>

#include "hfsplus/backup_attributes.h"
#include "hfsplus/backup_forks.h"
#include "hfsplus/backup_item.h"
#include "hfsplus/backup_records.h"
#include "hfsplus/catalog_record.h"

namespace hfsplus {

class HFSPlusDriver;

struct FileObjectAggregate {
    std::optional<HFSPlusBackupAttributes> attributes;
    std::optional<HFSPlusBackupDataFork> data;
    std::optional<HFSPlusBackupPosixAttributes> posix;
    std::optional<HFSPlusBackupFileTimes> times;
    std::optional<HFSPlusBackupFinderInfo> finder;
    std::optional<HFSPlusBackupResourceFork> resource;
    std::optional<HFSPlusBackupAttributesSequence> sequence;
};

struct DirectoryObjectAggregate {
    std::optional<HFSPlusBackupAttributes> attributes;
    std::optional<HFSPlusBackupPosixAttributes> posix;
    std::optional<HFSPlusBackupFileTimes> times;
    std::optional<HFSPlusBackupFinderInfo> finder;
    std::optional<HFSPlusBackupAttributesSequence> sequence;
};

struct SymlinkObjectAggregate {
    std::optional<HFSPlusBackupAttributes> attributes;
    std::optional<HFSPlusBackupSymlinkTarget> target;
    std::optional<HFSPlusBackupFileTimes> times;
    std::optional<HFSPlusBackupFinderInfo> finder;
    std::optional<HFSPlusBackupResourceFork> resource;
    std::optional<HFSPlusBackupAttributesSequence> sequence;
};

struct DeviceObjectAggregate {
    std::optional<HFSPlusBackupAttributes> attributes;
    std::optional<HFSPlusBackupDeviceObjectContent> device;
    std::optional<HFSPlusBackupFileTimes> times;
    std::optional<HFSPlusBackupFinderInfo> finder;
    std::optional<HFSPlusBackupResourceFork> resource;
    std::optional<HFSPlusBackupAttributesSequence> sequence;
};

// Attributes, data fork (when it has blocks; its bytes left out with
// option bit 2), Posix attributes, times, Finder information, resource
// fork (when it has blocks), extended attributes (when there are any).
class HFSPlusFileBackupObject : public HFSPlusBackupObject<FileObjectAggregate> {
public:
    static constexpr std::uint32_t kSkipData = 4;
    HFSPlusFileBackupObject(HFSPlusDriver& driver, const CatalogRecord& record, std::uint32_t option);
};

class HFSPlusDirectoryBackupObject : public HFSPlusBackupObject<DirectoryObjectAggregate> {
public:
    HFSPlusDirectoryBackupObject(HFSPlusDriver& driver, const CatalogRecord& record);
};

// The target is read when the object is made: FILE_BACKUP for a link with
// no data, FILE_CORRUPT for a read of nothing or above kMostTargetBytes.
class HFSPlusBackupSymlinkObject : public HFSPlusBackupObject<SymlinkObjectAggregate> {
public:
    static constexpr std::uint64_t kMostTargetBytes = 1024;
    HFSPlusBackupSymlinkObject(HFSPlusDriver& driver, const CatalogRecord& record);
};

class HFSPlusBackupDeviceObject : public HFSPlusBackupObject<DeviceObjectAggregate> {
public:
    HFSPlusBackupDeviceObject(HFSPlusDriver& driver, const CatalogRecord& record);
};

}  // namespace hfsplus
