#include "hfsplus/backup_attributes.h"

#include "files/utf_conversion.h"
#include "hfsplus/hfsplus_driver.h"
#include "hfsplus/hfsplus_metadata.h"
#include "loader/common/raise.h"

namespace hfsplus {

namespace {

std::vector<AttributeNameAndTypePair> AttributesOf(HFSPlusDriver& driver, std::uint32_t file_id) {
    std::vector<AttributeNameAndTypePair> list;
    driver.metadata().GetAttributesFile().ListAttributes(file_id, list);
    return list;
}

}  // namespace

HFSPlusBackupAttributeDataFork::HFSPlusBackupAttributeDataFork(HFSPlusDriver& driver, std::uint32_t file_id,
                                                               const std::u16string& name) {
    const ForkData fork = driver.metadata().GetAttributesFile().GetForkData(file_id, HFSPlusString(name));
    Append(kPiecePosixExtendedAttributes, allocator.aggregate.head, utf16_to_utf8(name), fork.logicalSize());
    Append(kPieceAttributeDataFork, allocator.aggregate.extents, driver, file_id, name, fork);
    Settle();
}

HFSPlusBackupInlineAttributeData::HFSPlusBackupInlineAttributeData(HFSPlusDriver& driver, std::uint32_t file_id,
                                                                   const std::u16string& name) {
    // The size is judged before the value is read: a value above the inline
    // limit is one a backup doesn't carry, whether or not its record holds it.
    AttributesFile& attributes = driver.metadata().GetAttributesFile();
    if (attributes.GetInlineSize(file_id, HFSPlusString(name)) > AttributesFile::kInlineLimit) {
        Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
    }
    std::vector<unsigned char> value = attributes.GetInlineData(file_id, HFSPlusString(name));
    Append(kPiecePosixExtendedAttributes, allocator.aggregate.head, utf16_to_utf8(name), value.size());
    Append(kPieceInlineAttributeData, allocator.aggregate.value, std::move(value));
    Settle();
}

HFSPlusBackupAttributesSequence::HFSPlusBackupAttributesSequence(HFSPlusDriver& driver, std::uint32_t file_id)
    : HFSPlusBackupAttributesSequence(driver, file_id, AttributesOf(driver, file_id)) {}

HFSPlusBackupAttributesSequence::HFSPlusBackupAttributesSequence(HFSPlusDriver& driver, std::uint32_t file_id,
                                                                 const std::vector<AttributeNameAndTypePair>& list)
    : HFSPlusBackupObject(list.size()) {
    for (const AttributeNameAndTypePair& attribute : list) {
        AttributesAggregate& element = allocator.Take();
        if (attribute.type == kAttrInlineData) {
            Append(kPieceInlineAttributeData, element.inline_data, driver, file_id, attribute.name);
        } else if (attribute.type == kAttrForkData) {
            Append(kPieceAttributeDataFork, element.fork_data, driver, file_id, attribute.name);
        } else {
            Common::Raise(ERROR_TAG, Common::Failures::FILE_BACKUP);
        }
    }
    Settle();
}

}  // namespace hfsplus
