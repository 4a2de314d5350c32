#pragma once
// The attributes tree over fork 8: named attributes of files and folders,
// inline or in forks. Names are compared in binary order. A volume without
// one is normal; the driver tests HasComponent(5) first.
#include <cstdint>
#include <string>
#include <vector>

#include "hfsplus/btree.h"
#include "hfsplus/extents_array.h"
#include "hfsplus/hfsplus_string.h"
#include "hfsplus/record_position.h"

namespace hfsplus {

class ExtentsOverflowFile;

struct AttributeNameAndTypePair {
    std::uint32_t type = 0;
    std::u16string name;
};

class AttributesFile : public SpecialFileWithBTree {
public:
    static constexpr std::uint32_t kInlineLimit = 0x8000;

    AttributesFile(HFSPlusDriver* driver, std::uint16_t node_size, ExtentsOverflowFile& extents);
    ~AttributesFile() override;

    RecordPosition FindFirst(std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name);
    void ListAttributes(std::uint32_t file_id, std::vector<AttributeNameAndTypePair>& list);
    // A copy of the 80-byte fork of a fork attribute.
    ForkData GetForkData(std::uint32_t file_id, const HFSPlusString& name);
    // The bytes of an inline attribute; FILE_NOT_FOUND when absent,
    // FILE_CORRUPT for another form or a size above the inline limit.
    std::vector<unsigned char> GetInlineData(std::uint32_t file_id, const HFSPlusString& name);
    // The value size an inline attribute's record declares, its bytes left
    // unread (a caller may refuse a size before the record is judged);
    // FILE_NOT_FOUND when absent, FILE_CORRUPT for another form.
    std::uint32_t GetInlineSize(std::uint32_t file_id, const HFSPlusString& name);
    // Completes `extents` (holding the fork's eight) from extents records.
    void GetForkExtents(std::uint32_t file_id, const HFSPlusString& name, ExtentsDescriptorArray& extents);

    // --- changes: FILE_READ_ONLY on a read-only driver ---
    // Removes every attribute of a file and frees the blocks of its fork
    // attributes. FILE_CORRUPT for an extents record out of step with its
    // fork record, and for a record of an unknown form.
    void DeleteAttributes(std::uint32_t file_id);
    void AddForkAttribute(std::uint32_t file_id, const HFSPlusString& name, const ForkData& fork);
    // FILE_UNSUPPORTED for no data or more than the inline limit.
    void AddInlineAttribute(std::uint32_t file_id, const HFSPlusString& name, const void* data, std::uint32_t size);
    void AddExtentsAttribute(std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name,
                             const ExtentDescriptor (&extents)[kExtentsPerRecord]);
    // Stamps the volume header's modifyDate when there is something to write.
    void FlushTree() override;

    int CompareKeys(const unsigned char* a, std::size_t a_size, const unsigned char* b, std::size_t b_size) const override;
    // FILE_UNSUPPORTED for a name above 127 characters.
    static std::size_t BuildKey(unsigned char* out, std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name);

private:
    // The data of the record of exactly (file id, name, start block);
    // null when there is none, FILE_CORRUPT when its type isn't
    // `type` or its data is shorter than `size`.
    const unsigned char* GetRecordOf(std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name,
                                     std::uint32_t type, std::size_t& size);
    void CheckValid() const;
    void CheckChange() const;
    void InsertAttribute(std::uint32_t file_id, std::uint32_t start_block, const HFSPlusString& name,
                         const unsigned char* record, std::size_t size);
    // Frees the blocks of the list and empties it.
    void FreeList(ExtentsDescriptorArray& list);

    // The record of an inline attribute on its way in.
    std::vector<unsigned char> record_buffer;
};

}  // namespace hfsplus
