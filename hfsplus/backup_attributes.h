#pragma once
// The extended attributes of one entry, from the attributes file: one
// object per attribute, in the file's order, each a head (name and value
// size) and then the value, inline or from a fork of blocks.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hfsplus/attributes_file.h"
#include "hfsplus/backup_extents.h"
#include "hfsplus/backup_item.h"
#include "hfsplus/backup_records.h"

namespace hfsplus {

class HFSPlusDriver;

struct AttributeDataForkAggregate {
    std::optional<HFSPlusBackupPosixExtendedAttributes> head;
    std::optional<HFSPlusBackupAttributeForkDataExtentsArray> extents;
};

struct InlineAttributeDataAggregate {
    std::optional<HFSPlusBackupPosixExtendedAttributes> head;
    std::optional<HFSPlusBackupInlineAttributeDataStream> value;
};

// An attribute whose value is in a fork.
class HFSPlusBackupAttributeDataFork : public HFSPlusBackupObject<AttributeDataForkAggregate> {
public:
    HFSPlusBackupAttributeDataFork(HFSPlusDriver& driver, std::uint32_t file_id, const std::u16string& name);
};

// An attribute whose value is in its record; FILE_BACKUP above the
// inline limit.
class HFSPlusBackupInlineAttributeData : public HFSPlusBackupObject<InlineAttributeDataAggregate> {
public:
    HFSPlusBackupInlineAttributeData(HFSPlusDriver& driver, std::uint32_t file_id, const std::u16string& name);
};

struct AttributesAggregate {
    std::optional<HFSPlusBackupAttributeDataFork> fork_data;
    std::optional<HFSPlusBackupInlineAttributeData> inline_data;
};

// All attributes of `file_id`; FILE_BACKUP for a record of another form
// (an extents record can't stand first for a name).
class HFSPlusBackupAttributesSequence
    : public HFSPlusBackupObject<AttributesAggregate, SequenceMemoryAllocator<AttributesAggregate>> {
public:
    HFSPlusBackupAttributesSequence(HFSPlusDriver& driver, std::uint32_t file_id);

private:
    HFSPlusBackupAttributesSequence(HFSPlusDriver& driver, std::uint32_t file_id,
                                    const std::vector<AttributeNameAndTypePair>& list);
};

}  // namespace hfsplus
