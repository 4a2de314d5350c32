#pragma once
// A file's records: the base record, the extension records that its
// attribute list names, and one shared object per attribute header.
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ntfs/file_record.h"

namespace ntfs {

struct RecordBuffer;
class Mft;

// Checks what the attribute walk of a record believes: the header's
// offsets and each attribute's length, name, value or mapping pairs inside
// the bytes in use, and the end marker. FILE_CORRUPT otherwise.
void CheckRecordLayout(RecordBuffer& buffer, std::uint32_t record_size);

// The name of an attribute, as stored.
std::u16string AttributeName(const AttributeRecord* header);

class BaseFileRecordImpl : public BaseFileRecord {
public:
    // The object of record `number`: FILE_CORRUPT for a record with no
    // links or no name. `mft` is the driver's unless given (record 0's
    // object is made while the driver's MFT is being built).
    BaseFileRecordImpl(NTFSDriver* driver, std::uint64_t number, Mft* mft = nullptr);
    ~BaseFileRecordImpl() override;
    BaseFileRecordImpl(const BaseFileRecordImpl&) = delete;
    BaseFileRecordImpl& operator=(const BaseFileRecordImpl&) = delete;

    Attribute* findAttribute(std::uint32_t type, const std::u16string& name) override;
    Attribute* nextExtent(const AttributeRecord* header) override;
    Attribute* nextAttribute(Attribute* previous) override;
    Attribute* nextOfKind(Attribute* previous) override;
    void releaseAttribute(Attribute* attribute) override;
    std::uint64_t reference() override;
    RecordBuffer* recordBuffer() override { return base_; }
    std::uint32_t maxAttributeSize() override;
    void readThrough() override;
    void flush() override;
    bool resizeInRecord(AttributeRecord* header, std::uint32_t length, bool may_move) override;

private:
    struct Slot {
        std::uint32_t uses = 0;
        std::unique_ptr<Attribute> object;
    };
    // One attribute list entry, copied out of the list.
    struct ListEntry {
        std::uint32_t type;
        std::u16string name;
        std::uint64_t lowest_vcn;
        std::uint64_t record;
        std::uint16_t instance;
    };

    // The header of (type, name, vcn) in one record, with `instance` when it
    // isn't negative; null when none.
    static AttributeRecord* findInRecord(RecordBuffer* buffer, std::uint32_t type, const std::u16string& name,
                                         std::uint64_t vcn, int instance);
    // The header of (type, name, vcn) wherever the file keeps it.
    AttributeRecord* locate(std::uint32_t type, const std::u16string& name, std::uint64_t vcn);
    AttributeRecord* locateEntry(const ListEntry& entry);
    RecordBuffer* recordOf(std::uint64_t number);
    void loadList();
    // The object of a header, shared; use count + 1.
    Attribute* hold(AttributeRecord* header);
    const std::vector<AttributeRecord*>& order();
    // The loaded record whose bytes hold `header`; FILE_CORRUPT when none.
    RecordBuffer* holderOf(const AttributeRecord* header);
    // Moves the bytes of `buffer` from `from` up to its bytes in use by
    // `delta` and tells the objects of the moved headers.
    void shiftTail(RecordBuffer* buffer, std::uint32_t from, std::int64_t delta);
    // Destroys every attribute object and gives the buffers back.
    void releaseEverything();

    NTFSDriver* driver_;
    Mft* mft_;
    std::uint64_t number_;
    RecordBuffer* base_ = nullptr;
    std::map<std::uint64_t, RecordBuffer*> extensions_;
    std::map<const AttributeRecord*, Slot> attributes_;
    bool list_loaded_ = false;
    bool has_list_ = false;
    std::vector<ListEntry> list_;
    bool order_known_ = false;
    std::vector<AttributeRecord*> order_;
};

// Record 0, the MFT's own. Its write-side differences (it can't be split,
// its data stream is cut rather than moved) come with the write path.
class MftBaseFileRecordImpl : public BaseFileRecordImpl {
public:
    using BaseFileRecordImpl::BaseFileRecordImpl;
};

}  // namespace ntfs
