#pragma once
// The objects of a file's forks and of its Finder information. The data
// fork is a stream of its own; Finder information and the resource fork
// are given as extended attributes ("com.apple.FinderInfo",
// "com.apple.ResourceFork"), a head with the name and the size, then the
// bytes, so that a reader of Posix extended attributes takes them as such.
#include <cstdint>
#include <optional>

#include "hfsplus/backup_extents.h"
#include "hfsplus/backup_item.h"
#include "hfsplus/backup_records.h"

namespace hfsplus {

class HFSPlusDriver;
struct CatalogRecord;

struct DataForkAggregate {
    std::optional<HFSPlusBackupDataForkExtentsArray> extents;
};

struct ResourceForkAggregate {
    std::optional<HFSPlusBackupPosixExtendedAttributes> head;
    std::optional<HFSPlusBackupResourceForkExtentsArray> extents;
};

struct FinderInfoAggregate {
    std::optional<HFSPlusBackupPosixExtendedAttributes> head;
    std::optional<HFSPlusBackupFinderInfoContent> content;
};

// The data fork of a file record; `skip` leaves its bytes out.
class HFSPlusBackupDataFork : public HFSPlusBackupObject<DataForkAggregate> {
public:
    HFSPlusBackupDataFork(HFSPlusDriver& driver, const CatalogRecord& record, bool skip);
};

class HFSPlusBackupResourceFork : public HFSPlusBackupObject<ResourceForkAggregate> {
public:
    HFSPlusBackupResourceFork(HFSPlusDriver& driver, const CatalogRecord& record);
};

// The 32 bytes of a folder's or a file's Finder information.
class HFSPlusBackupFinderInfo : public HFSPlusBackupObject<FinderInfoAggregate> {
public:
    explicit HFSPlusBackupFinderInfo(const CatalogRecord& record);
};

}  // namespace hfsplus
